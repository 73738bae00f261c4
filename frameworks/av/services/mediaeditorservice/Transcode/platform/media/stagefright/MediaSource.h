// The interface from which a writer pulls encoded samples.
#pragma once

#include <media/stagefright/MediaBufferBase.h>
#include <media/stagefright/MediaErrors.h>
#include <media/stagefright/MetaData.h>
#include <stdint.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>

namespace android {

class MediaTrack {
public:
    class ReadOptions {
    public:
        enum SeekMode : int32_t {
            SEEK_PREVIOUS_SYNC = 0,
            SEEK_NEXT_SYNC = 1,
            SEEK_CLOSEST_SYNC = 2,
            SEEK_CLOSEST = 3,
        };
    };
};

class MediaSource : public virtual RefBase {
public:
    typedef MediaTrack::ReadOptions ReadOptions;

    MediaSource() = default;

    // To be called before any other operation but getFormat().
    virtual status_t start(MetaData* params = nullptr) = 0;

    // A read() that waits on another thread returns soon after this was called.
    virtual status_t stop() = 0;

    virtual sp<MetaData> getFormat() = 0;

    // Blocks until a buffer is there, which the caller releases; ERROR_END_OF_STREAM ends the
    // track.
    virtual status_t read(MediaBufferBase** buffer, const ReadOptions* options = nullptr) = 0;

    virtual status_t setStopTimeUs(int64_t /* stopTimeUs */) { return ERROR_UNSUPPORTED; }
    virtual status_t pause() { return ERROR_UNSUPPORTED; }

protected:
    ~MediaSource() override = default;

private:
    MediaSource(const MediaSource&) = delete;
    MediaSource& operator=(const MediaSource&) = delete;
};

}  // namespace android
