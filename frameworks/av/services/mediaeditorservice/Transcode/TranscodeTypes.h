// The plain records of a transcoding session: the request, the descriptions of what goes out, and
// one decoded buffer. Times are microseconds.
#pragma once

#include <media/MediaCodecBuffer.h>
#include <media/stagefright/MediaCodecConstants.h>
#include <media/stagefright/foundation/ABuffer.h>
#include <media/stagefright/foundation/AMessage.h>
#include <media/stagefright/foundation/AString.h>
#include <stddef.h>
#include <stdint.h>
#include <utils/RefBase.h>

#include <functional>

// Marks what the library shows to its hosts.
#ifndef QM_EXPORT
#define QM_EXPORT __attribute__((visibility("default")))
#endif

namespace android {
namespace qmmediaeditor {

// Eight bytes of the host's that are passed on as one unit.
struct OpaqueParam {
    int32_t mWords[2] = {0, 0};
};
static_assert(sizeof(OpaqueParam) == 8);

// One period of the input to keep: [mStartUs, mEndUs), in microseconds.
struct TrimPeriod {
    int64_t mStartUs;
    int64_t mEndUs;
};
// Periods come as an array of the host's.
static_assert(sizeof(TrimPeriod) == 16 && offsetof(TrimPeriod, mEndUs) == 8);
static_assert(sizeof(bool) == 1 && sizeof(size_t) == sizeof(void*), "as the host lays them out");

// What-code of TranscodeProperty::mOutputFormat.
constexpr uint32_t kOutputFormatWhat = 0x6F757446;  // 'outF'

// The request. Owned by the host; it must outlive the session, which reads it on the thread of
// process() and on threads of its own, and must not be changed meanwhile.
struct TranscodeProperty {
    int32_t mReserved = 0;
    // Seekable; read from offset 0 to its end, and left positioned there.
    int32_t mInputFd = -1;
    // A regular file (also one in memory) opened for writing, without O_APPEND, and not the input.
    // process() closes it, also when it refuses the request, and sets it to -1: the number may
    // belong to another file soon.
    int32_t mOutputFd = -1;
    // Called with a percentage, on the thread of process() and on the input reader's. An empty
    // callback, one that throws and one that calls create(), destory() or clearHandler() abort the
    // process.
    std::function<void(int32_t)> mProgressCallback;
    // Percentage that earlier work of the host accounts for; above 100 counts as 0.
    uint32_t mProgressOffset = 0;
    // Null: codec AVC and AAC, with the size, frame rate, bit rate, sample rate and channels of the
    // input, in an MP4 file. A message with another what-code counts as null.
    //
    // Otherwise a message of kOutputFormatWhat with any of these int32 keys. A missing one has the
    // default named here and does not mean "as the input":
    //   "file-format"          1 is 3GP, 2 is MP4; default 2
    //   "audio-encoder"        0 or 1 is AMR-NB, 2 AMR-WB, 3 AAC LC, 4 and 5 HE-AAC and ELD;
    //                          default AAC
    //   "audio-bitrate"        bits per second; default 12800
    //   "audio-samplerate"     Hz; default 8000
    //   "audio-channels"       default 1
    //   "audio-bitspersample"  default 16
    //   "video-encoder"        0 or 2 is AVC, 1 H.263, 3 MPEG-4, 4 VP8; default AVC
    //   "video-width", "video-height"  pixels, before rotation; default: the input's
    //   "video-framerate"      frames per second at most; default 15
    //   "video-bitrate"        bits per second; default: the input's
    sp<AMessage> mOutputFormat;
    bool mTrimEnabled = false;
    // At least 1 when mTrimEnabled is set.
    int32_t mPeriodCount = 0;
    // In time order and without overlap, in the order of the output; not null when mTrimEnabled is
    // set. The array must outlive the session. An mEndUs below its mStartUs is refused with
    // kInvalidRequest. A period that begins before the end of the one before it is not refused: the
    // session seeks back for it, and may leave out frames at its start. It reads nothing beyond the
    // end of the last period in the array, so that all before it must end earlier.
    const TrimPeriod* mPeriods = nullptr;
    bool mHasAudioEffect = false;
    OpaqueParam mAudioEffectInfo;
    int32_t mAudioEffectParam = 0;
    // The video encoder is fed through a surface.
    bool mUseInputSurface = false;
    OpaqueParam mVideoParam1;
    int32_t mVideoParam2 = 0;
};

// Facts about the input file.
struct FileAttribute {
    int32_t mHasAudio = 0;    // as bool: an audio track was selected
    int32_t mHasVideo = 0;    // as bool: a video track was selected
    int64_t mDurationUs = 0;  // the longest selected track's; the denominator of progress
    int64_t mFileSize = 0;    // bytes
};

// The audio to make (upper half) and what the decoder delivers for it.
struct AudioAttribute {
    AString mMime;
    int32_t mBitrate = -1;     // bits per second
    int32_t mSampleRate = -1;  // Hz
    int32_t mChannelCount = -1;
    int32_t mBitsPerSample = -1;
    int32_t mAacProfile = -1;  // AAC object type (1, 5 or 39), or 0 for AMR
    bool mHasEffect = false;
    OpaqueParam mEffectInfo;
    int32_t mEffectParam = 0;
    int32_t mMaxInputSize = -1;     // bytes; the size of the buffer lent to the writer
    int32_t mInputSampleRate = -1;  // Hz
    int32_t mInputChannelCount = -1;
    int32_t mInputBitsPerSample = -1;
    sp<ABuffer> mCsd;               // codec-specific data to pass through, or null
    int32_t mAudioTrackIndex = -1;  // in Transcode::mpTrack
};

// The video to make (upper half) and what the decoder delivers for it.
struct VideoAttribute {
    AString mMime;
    int32_t mOutputWidth = 0;
    int32_t mOutputHeight = 0;
    int32_t mOutputFrameRate = -1;  // frames per second
    int32_t mBitrate = -1;          // bits per second
    int32_t mColorFormat = -1;      // of the encoder's input: planar, or surface
    int32_t mLevel = 0;             // the platform's AVC level bit, or 0
    int32_t mProfile = 0;           // the platform's AVC profile bit, or 0
    int32_t mIFrameInterval = -1;   // seconds
    sp<ABuffer> mAvcCsd0;           // of an AVC input track
    sp<ABuffer> mAvcCsd1;
    bool mUseSurface = false;
    OpaqueParam mSurfaceParam1;
    int32_t mSurfaceParam2 = 0;
    int32_t mRotation = 0;  // degrees clockwise
    int32_t mWidth = 0;     // visible pixels
    int32_t mHeight = 0;
    int32_t mFrameRate = -1;  // frames per second
    AString mInputMime;
    int32_t mPTrim = 0;             // as bool; always 0
    int32_t mStride = 0;            // bytes of a luma row
    int32_t mSliceHeight = 0;       // rows of the luma plane
    int32_t mNeedCopy = 0;          // as bool: the planes are larger than the visible frame
    int32_t mFrameBufferSize = 10;  // frames held back by the video source
    int32_t mDecoderColorFormat = COLOR_FormatYUV420SemiPlanar;  // or planar
};

// One decoded buffer on its way into a source. The end-of-stream marker has mFlags 4 and a null
// mBuffer; its other fields carry no meaning.
struct TDecodedSample {
    size_t mIndex = 0;
    size_t mOffset = 0;
    size_t mSize = 0;  // bytes
    uint32_t mFlags = 0;
    int64_t mColorFormat = 0;
    sp<MediaCodecBuffer> mBuffer;
    int64_t mPresentationTimeUs = 0;
};

}  // namespace qmmediaeditor
}  // namespace android
