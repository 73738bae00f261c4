// A decoder or an encoder.
//
// Order of use: CreateByType, configure, start, then the buffer operations, then stop and release.
// Buffer operations may be called from any thread; a dequeue that waits returns when a buffer
// comes, when its time is up, or when another thread stops or releases the codec.
#pragma once

#include <gui/Surface.h>
#include <media/MediaCodecBuffer.h>
#include <media/stagefright/MediaErrors.h>
#include <media/stagefright/foundation/ALooper.h>
#include <media/stagefright/foundation/AMessage.h>
#include <mediadrm/ICrypto.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>

namespace android {

// Of <utils/Vector.h>, which would bring the log's macros along.
template <class TYPE>
class Vector;

class MediaCodec : public RefBase {
public:
    enum ConfigureFlags : uint32_t {
        CONFIGURE_FLAG_ENCODE = 1,
    };

    enum BufferFlags : uint32_t {
        BUFFER_FLAG_SYNCFRAME = 1,
        BUFFER_FLAG_CODECCONFIG = 2,
        BUFFER_FLAG_EOS = 4,
    };

    static const pid_t kNoPid = -1;
    static constexpr uid_t kNoUid = static_cast<uid_t>(-1);

    // Null, with the reason in `err`, when nothing here handles that type. The codec works on
    // `looper`'s thread.
    static sp<MediaCodec> CreateByType(const sp<ALooper>& looper, const AString& mime, bool encoder,
                                       status_t* err = nullptr, pid_t pid = kNoPid,
                                       uid_t uid = kNoUid);

    virtual status_t configure(const sp<AMessage>& format, const sp<Surface>& nativeWindow,
                               const sp<ICrypto>& crypto, uint32_t flags) = 0;
    virtual status_t start() = 0;

    // Ends the work; every buffer operation fails from then on. Waiting dequeues return at once.
    virtual status_t stop() = 0;
    // Releases everything. May be called in any state, more than once.
    virtual status_t release() = 0;

    // 0 with an index that the caller then owns until it queues it; -EAGAIN when `timeoutUs`
    // microseconds have passed; another error when the codec is not running or has failed. 0 does
    // not wait, and a negative timeout waits without limit.
    virtual status_t dequeueInputBuffer(size_t* index, int64_t timeoutUs = 0) = 0;
    // `presentationTimeUs` in microseconds. BUFFER_FLAG_EOS says that nothing follows.
    virtual status_t queueInputBuffer(size_t index, size_t offset, size_t size,
                                      int64_t presentationTimeUs, uint32_t flags,
                                      AString* errorDetailMsg = nullptr) = 0;
    // 0 with a filled buffer; -EAGAIN; INFO_FORMAT_CHANGED, which comes before the first buffer of
    // a decoder; INFO_OUTPUT_BUFFERS_CHANGED; another error when the codec is not running or has
    // failed. The outputs are written on 0 only.
    virtual status_t dequeueOutputBuffer(size_t* index, size_t* offset, size_t* size,
                                         int64_t* presentationTimeUs, uint32_t* flags,
                                         int64_t timeoutUs = 0) = 0;
    // An error, and nothing else, for an index that the caller does not hold.
    virtual status_t releaseOutputBuffer(size_t index) = 0;
    // For an encoder that is fed through a surface.
    virtual status_t signalEndOfInputStream() = 0;

    virtual status_t getOutputFormat(sp<AMessage>* format) const = 0;
    // The same buffers for a whole run, in the order of their indexes.
    virtual status_t getInputBuffers(Vector<sp<MediaCodecBuffer>>* buffers) const = 0;
    virtual status_t getOutputBuffers(Vector<sp<MediaCodecBuffer>>* buffers) const = 0;

protected:
    MediaCodec() = default;
    ~MediaCodec() override = default;
};

}  // namespace android
