// How wide the records' fields are: their users on a device rely on it. Checked wherever this is
// compiled, for 32-bit machines above all.
#include <Transcode.h>
#include <stddef.h>

#include <atomic>
#include <type_traits>

namespace android::qmmediaeditor {

namespace {

template <typename T>
T plain(const RelaxedAtomic<T>&);
template <typename T>
T plain(const T&);

// Each of the fields, shared between threads or not, is a T and takes its room.
template <typename T, typename... Records, typename... Fields>
constexpr bool areAll(Fields Records::*...) {
    return ((std::is_same_v<T, decltype(plain(std::declval<Fields>()))> &&
             sizeof(Fields) == sizeof(T)) &&
            ...);
}

using Property = TranscodeProperty;
using CodecState = Transcode::CodecState;
using SampleData = Transcode::SampleData;

// Times, and what counts bytes or frames of a whole file.
static_assert(areAll<int64_t>(&TrimPeriod::mStartUs, &TrimPeriod::mEndUs,
                              &FileAttribute::mDurationUs, &FileAttribute::mFileSize,
                              &SampleData::mTimeUs, &SampleData::mDurationUs,
                              &TDecodedSample::mColorFormat, &TDecodedSample::mPresentationTimeUs,
                              &TEncodedSample::mDecodingTimeUs, &TEncodedSample::mTimeUs,
                              &TEncodedSample::mSpare2, &Transcode::mPeriodOffsetUs,
                              &Transcode::mSeekTime, &Transcode::mDequeueTimeoutUs,
                              &TAudioSource::mNextTimeUs, &TVideoSource::mLastTimeUs,
                              &TVideoSource::mFrameIntervalUs, &TVideoSource::mNextFrameTimeUs));
static_assert(areAll<uint64_t>(&CodecState::mDecodedFrameCount, &CodecState::mDecodedByteCount));

// Flags of one byte.
static_assert(sizeof(bool) == 1);
static_assert(areAll<bool>(
    &Property::mTrimEnabled, &Property::mHasAudioEffect, &Property::mUseInputSurface,
    &AudioAttribute::mHasEffect, &VideoAttribute::mUseSurface, &CodecState::mSawInputEOS,
    &CodecState::mSawOutputEOS, &CodecState::mIsAudio, &Transcode::Track::mSelected,
    &SampleData::mIsAudio, &Transcode::mForceStop, &Transcode::mOutputStopped,
    &Transcode::mNeedtoSeek, &Transcode::mPeriodChanged, &TAudioSource::mStarted,
    &TAudioSource::mCodecStopped, &TVideoSource::mStarted, &TVideoSource::mCodecStopped));

// Flags and numbers of 32 bits.
static_assert(areAll<int32_t>(&Property::mInputFd, &Property::mOutputFd, &Property::mPeriodCount,
                              &Property::mAudioEffectParam, &Property::mVideoParam2,
                              &FileAttribute::mHasAudio, &FileAttribute::mHasVideo,
                              &VideoAttribute::mPTrim, &VideoAttribute::mNeedCopy,
                              &VideoAttribute::mStride, &VideoAttribute::mSliceHeight,
                              &AudioAttribute::mMaxInputSize, &SampleData::mIsSyncFrame,
                              &Transcode::mTrackCount, &Transcode::mCurrentPeriodIndex));
static_assert(areAll<uint32_t>(&Property::mProgressOffset, &TDecodedSample::mFlags,
                               &TEncodedSample::mFlags, &SampleData::mTrackIndex));

// Sizes and indexes of buffers, of 32 bits where addresses have as many.
static_assert(sizeof(size_t) == sizeof(void*));
static_assert(areAll<size_t>(&TDecodedSample::mIndex, &TDecodedSample::mOffset,
                             &TDecodedSample::mSize, &TEncodedSample::mIndex,
                             &TEncodedSample::mOffset, &TEncodedSample::mSize,
                             &Transcode::mSampleBufferSize));
#ifdef __arm__
static_assert(sizeof(size_t) == 4);
#endif

// Periods come as an array, opaque parameters as one unit.
static_assert(sizeof(TrimPeriod) == 16 && offsetof(TrimPeriod, mEndUs) == 8);
static_assert(sizeof(OpaqueParam) == 8);

static_assert(std::atomic<int64_t>::is_always_lock_free);

}  // namespace

}  // namespace android::qmmediaeditor
