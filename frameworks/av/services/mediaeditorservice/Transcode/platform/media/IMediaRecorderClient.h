// The receiver of a writer's events.
#pragma once

#include <binder/IInterface.h>

namespace android {

// Values of `msg`.
enum media_recorder_event_type {
    MEDIA_RECORDER_EVENT_ERROR = 1,
    MEDIA_RECORDER_EVENT_INFO = 2,
};

// Values of `ext1` for MEDIA_RECORDER_EVENT_INFO.
enum media_recorder_info_type {
    MEDIA_RECORDER_INFO_MAX_DURATION_REACHED = 800,
    MEDIA_RECORDER_INFO_MAX_FILESIZE_REACHED = 801,
};

class IMediaRecorderClient : public IInterface {
public:
    virtual const String16& getInterfaceDescriptor() const;

    // Called on a thread of the writer.
    virtual void notify(int msg, int ext1, int ext2) = 0;
};

}  // namespace android
