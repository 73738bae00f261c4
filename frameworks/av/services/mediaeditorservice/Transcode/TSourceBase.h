// The interface of the audio and the video source: the writer pulls encoded samples out of them,
// the session pushes decoded ones in.
#pragma once

#include <TranscodeTypes.h>
#include <media/stagefright/MediaBufferBase.h>
#include <media/stagefright/MediaSource.h>
#include <stddef.h>
#include <stdint.h>

namespace android {
namespace qmmediaeditor {

// One encoded buffer on its way to the writer.
struct TEncodedSample {
    size_t mIndex = 0;    // the encoder's output buffer
    size_t mOffset = 0;   // not used when copying
    size_t mSize = 0;     // bytes
    uint32_t mFlags = 0;  // 1 sync frame, 2 codec-specific data, 4 end of stream
    int64_t mSpare = 0;
    sp<MediaCodecBuffer> mBuffer;
    int64_t mDecodingTimeUs = 0;
    int64_t mTimeUs = 0;  // presentation time
    int64_t mSpare2 = 0;  // video: duration, -1 when it follows from the frame rate
};

class TSourceBase : public virtual MediaSource, public virtual MediaBufferObserver {
public:
    TSourceBase() = default;

    // The writer calls start() once, then read() on the track's thread until it returns an error.
    status_t start(MetaData* params = nullptr) override = 0;
    status_t stop() override = 0;
    sp<MetaData> getFormat() override = 0;
    status_t read(MediaBufferBase** buffer, const ReadOptions* options = nullptr) override = 0;

    // Between start() and the end of the track.
    virtual bool getRunning() = 0;

    // Nothing more goes in; read() delivers what is queued and then ends. Any thread.
    virtual void setCodecStopped() = 0;

    // Takes a copy of `sample`. Blocks while a whole batch waits for the encoder. A sample with
    // flag 4 ends the track: after what is queued, or at once when `inputEnded` is set. 0, -1011
    // (end of stream, or the source is stopped) or -22 (no buffer). The session's thread.
    virtual status_t pushDecodedBuffer(TDecodedSample& sample, bool inputEnded) = 0;

    void signalBufferReturned(MediaBufferBase* buffer) override = 0;

protected:
    ~TSourceBase() override {}
};

}  // namespace qmmediaeditor
}  // namespace android
