// The interface of a writer, which makes a file of tracks.
#pragma once

#include <media/IMediaRecorderClient.h>
#include <media/stagefright/MediaSource.h>
#include <media/stagefright/MetaData.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>

namespace android {

class MediaWriter : public RefBase {
public:
    // Before `start`, in the order of the tracks in the file.
    virtual status_t addSource(const sp<MediaSource>& source) = 0;

    // Starts each source, and a thread for each track that pulls from it. `params` may have
    // kKeyFileType, kKeyRotation and kKeyRealTimeRecording.
    virtual status_t start(MetaData* params = nullptr) = 0;

    // True when every track has ended.
    virtual bool reachedEOS() = 0;

    // Stops each source, waits for the track threads and closes the file. The first error of the
    // run, or 0.
    virtual status_t stop() = 0;
    virtual status_t pause() = 0;

    // Before `start`. The listener is called on a track's thread.
    virtual void setListener(const sp<IMediaRecorderClient>& listener) { mListener = listener; }

protected:
    MediaWriter() = default;
    ~MediaWriter() override = default;

    sp<IMediaRecorderClient> mListener;
};

}  // namespace android
