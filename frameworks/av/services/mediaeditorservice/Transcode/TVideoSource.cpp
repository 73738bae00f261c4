#include <Log.h>
#include <SaturatingMath.h>
#include <TVideoSource.h>
#include <editorutils/QmMediaEditorColorConverter.h>
#include <media/stagefright/MediaErrors.h>
#include <media/stagefright/Utils.h>

namespace android {
namespace qmmediaeditor {

namespace {

constexpr int32_t kDefaultFrameBufferSize = 10;
constexpr uint32_t kFlagEOS = MediaCodec::BUFFER_FLAG_EOS;

// A value of TEncodedSample::mSpare2: the sample lasts for the interval of the output's frame rate.
constexpr int64_t kDurationFromFrameRate = -1;

}  // namespace

TVideoSource::TVideoSource(const VideoAttribute& attribute)
    : mAttribute(attribute), mOutputFormat(new AMessage), mEncoderFormat(new AMessage) {
    QM_LOGV(kTag, "Constructor Video TransSource");
    Mutex::Autolock guard(mDecodedLock);
    initVideoSource();
    mValid = true;
}

TVideoSource::~TVideoSource() {
    QM_LOGV(kTag, "Decontructor TVideoSource start");
    dropEncoderThread();
    QM_LOGV(kTag, "Decontructor TVideoSource end");
}

int TVideoSource::initVideoSource() {
    mColorUtils.clear();
    mEOSSampleAdded = false;
    if (mAttribute.mFrameBufferSize != kDefaultFrameBufferSize) {
        setBounds(mAttribute.mFrameBufferSize);
    }
    {
        Mutex::Autolock guard(mFormatLock);
        fillFormat(mOutputFormat.get());
        QM_LOGV(kTag, "TVideoSource Writer: %s", mOutputFormat->debugString().c_str());
        fillFormat(mEncoderFormat.get());
        if (mAttribute.mProfile != 0 && mAttribute.mLevel != 0) {
            mEncoderFormat->setInt32("profile", mAttribute.mProfile);
            mEncoderFormat->setInt32("level", mAttribute.mLevel);
        }
    }
    mFrameIntervalUs = mAttribute.mOutputFrameRate == 0 ? 0 : 1000000 / mAttribute.mOutputFrameRate;
    mNextFrameTimeUs = 0;
    return 1;
}

void TVideoSource::setSampleBufferNumber(int count) {
    Mutex::Autolock guard(mDecodedLock);
    setBounds(count);
}

void TVideoSource::setBounds(int count) {
    if (count < 0) {
        QM_LOGD(kTag, "check function setSampleBufferNumber");
        return;
    }
    mMaxEncodedSamples = count;
    mMaxDecodedSamples = count;
}

void TVideoSource::fillFormat(AMessage* format) const {
    format->setString("mime", mAttribute.mMime);
    format->setInt32("width", mAttribute.mOutputWidth);
    format->setInt32("height", mAttribute.mOutputHeight);
    format->setInt32("bitrate", mAttribute.mBitrate);
    format->setFloat("frame-rate", static_cast<float>(mAttribute.mOutputFrameRate));
    format->setInt32("i-frame-interval", mAttribute.mIFrameInterval);
    format->setInt32("color-format", mAttribute.mColorFormat);
    format->setInt32("rotation-degrees", mAttribute.mRotation);
    format->setInt32("stride", mAttribute.mOutputWidth);
    format->setInt32("slice-height", mAttribute.mOutputHeight);
}

// Bytes of one 4:2:0 frame of the output. 0 for a side below 1, and when the bytes exceed an
// int32_t.
int32_t TVideoSource::outputFrameBytes() const {
    if (mAttribute.mOutputWidth < 1 || mAttribute.mOutputHeight < 1) return 0;
    const int64_t bytes =
        static_cast<int64_t>(mAttribute.mOutputWidth) * mAttribute.mOutputHeight * 3 / 2;
    return bytes > INT32_MAX ? 0 : static_cast<int32_t>(bytes);
}

status_t TVideoSource::enable(const VideoAttribute& attribute, sp<AMessage> decoderOutputFormat) {
    int32_t frameBytes;
    {
        Mutex::Autolock guard(mDecodedLock);
        QM_LOGV(kTag, "reCreate");
        mAttribute = attribute;
        QM_LOGV(kTag, "TVideoSource decoderoutput: %s", decoderOutputFormat->debugString().c_str());
        initVideoSource();
        int32_t hdr = 0;
        if (decoderOutputFormat->findInt32("hdr10-video-playback", &hdr) && hdr != 0) {
            QM_LOGD(kTag, "hdr10");
            setHdrOutputFormat(decoderOutputFormat);
        }
        frameBytes = outputFrameBytes();
    }
    {
        Mutex::Autolock guard(mEncodedLock);
        mLastTimeUs = -1;
    }
    status_t err = mCore.makePool(frameBytes);
    if (err != OK) return err;
    if (mMediaEncoderThread != nullptr) mMediaEncoderThread->stopEncoder();
    dropEncoderThread();
    mMediaEncoderThread = new MediaEncoderThread(this);
    err = mMediaEncoderThread->start();
    if (err == OK) QM_LOGV(kTag, "Allocated MediaBuffer size : %d", frameBytes);
    return err;
}

void TVideoSource::dropEncoderThread() {
    if (mMediaEncoderThread != nullptr) mMediaEncoderThread->retire();
    mMediaEncoderThread.clear();
}

status_t TVideoSource::setDecoderOutputFormat(sp<AMessage> format) {
    Mutex::Autolock guard(mDecodedLock);
    return setHdrOutputFormat(format);
}

status_t TVideoSource::setHdrOutputFormat(const sp<AMessage>& format) {
    QM_LOGV(kTag, "setDecoderOutputFormat : %s", format->debugString().c_str());
    mColorUtils = new QmMediaEditorColorUtils;
    sp<AMessage> copy = format->dup();
    copy->setInt32("color-format", COLOR_FormatYUV420Planar);
    const int width = mAttribute.mOutputWidth;
    const int height = mAttribute.mOutputHeight;
    QM_LOGD(kTag, "%dx%d", width, height);
    mColorUtils->setOutputFormat(copy, width, height, 0, 0, clampToInt32(int64_t{width} - 1),
                                 clampToInt32(int64_t{height} - 1), width, height);
    return OK;
}

status_t TVideoSource::stop() {
    mCore.stop(mMediaEncoderThread == nullptr ? nullptr : &mMediaEncoderThread->pump());
    QM_LOGV(kTag, "Call TVideoSource stop function end");
    return OK;
}

sp<MetaData> TVideoSource::getFormat() {
    Mutex::Autolock guard(mFormatLock);
    convertMessageToMetaData(mOutputFormat, mMeta);
    return mMeta;
}

status_t TVideoSource::read(MediaBufferBase** buffer, const ReadOptions*) {
    return mCore.read(buffer, [](const TEncodedSample& sample, MetaDataBase& meta) {
        if ((sample.mFlags & MediaCodec::BUFFER_FLAG_CODECCONFIG) != 0) {
            meta.setInt32(kKeyIsCodecConfig, 1);
        }
        if ((sample.mFlags & MediaCodec::BUFFER_FLAG_SYNCFRAME) != 0) {
            meta.setInt32(kKeyIsSyncFrame, 1);
        }
        meta.setInt64(kKeyTime, sample.mTimeUs);
        // The encoder does not reorder, so the presentation time is the decoding time as well. The
        // sample's own mDecodingTimeUs does not reach the writer.
        meta.setInt64(kKeyDecodingTime, sample.mTimeUs);
    });
}

void TVideoSource::stopThread() {
    QM_LOGV(kTag, "mMediaEncoderThread stopThread");
    dropEncoderThread();
}

status_t TVideoSource::pushEncodedBuffer(TEncodedSample* sample) {
    return mCore.pushEncoded(
        *sample, static_cast<size_t>(mMaxEncodedSamples),
        "wait @ Buffer Start conditionpushEncodedBuffer called before start",
        "wait @ buffer returned condition in pushEncodedBuffer [EncodedSample:%zu]",
        [this](TEncodedSample* copy) REQUIRES(mEncodedLock) { stampDecodingTime(copy); });
}

// A sample's decoding time is the one of the sample before plus the sample's duration, but never
// later than the sample's presentation time.
void TVideoSource::stampDecodingTime(TEncodedSample* sample) {
    int64_t timeUs = sample->mDecodingTimeUs;
    if (mLastTimeUs <= 0) {
        timeUs = sample->mTimeUs;
    } else if (sample->mSpare2 >= 0) {
        timeUs = saturatingAdd(mLastTimeUs, sample->mSpare2);
    } else if (sample->mSpare2 == kDurationFromFrameRate) {
        timeUs = saturatingAdd(mLastTimeUs, mFrameIntervalUs);
    }
    if (sample->mTimeUs < timeUs) timeUs = sample->mTimeUs;
    mLastTimeUs = timeUs;
    sample->mDecodingTimeUs = timeUs;
}

status_t TVideoSource::pushDecodedBuffer(TDecodedSample& sample, bool stopOnEOS) {
    return mCore.pushDecoded(
        sample, stopOnEOS, mMediaEncoderThread != nullptr, static_cast<size_t>(mMaxDecodedSamples),
        "wait@mDecoderBufferReturnedCond [DecodedSample:%zu]",
        [this](TDecodedSample* copy)
            REQUIRES(mDecodedLock) { return keepFrame(copy->mPresentationTimeUs); });
}

// False for a frame that follows the last kept one too closely.
bool TVideoSource::keepFrame(int64_t timeUs) {
    if (timeUs < mNextFrameTimeUs) {
        QM_LOGD(kTag, "drop %lld > %lld", wide(mNextFrameTimeUs), wide(timeUs));
        return false;
    }
    mNextFrameTimeUs = saturatingAdd(timeUs, mFrameIntervalUs);
    return true;
}

void TVideoSource::cropFrame(TDecodedSample& in, TDecodedSample& out,
                             bool convert) NO_THREAD_SAFETY_ANALYSIS {
    if (!convert) return;
    const auto outBytes = static_cast<size_t>(outputFrameBytes());
    if (!frameFits(in, out, outBytes)) {
        QM_LOGE(kTag, "frame of %zu bytes does not hold %dx%d in %dx%d, or %zu bytes are too few",
                in.mSize, mAttribute.mWidth, mAttribute.mHeight, mAttribute.mStride,
                mAttribute.mSliceHeight, out.mBuffer->capacity());
        out.mSize = 0;
        return;
    }
    out.mSize = outBytes;
    out.mBuffer->setRange(0, outBytes);
    QmMediaEditorColorConverter::Scale(
        mAttribute.mStride, mAttribute.mSliceHeight, mAttribute.mWidth, mAttribute.mHeight,
        mAttribute.mDecoderColorFormat, in.mBuffer->data(), mAttribute.mOutputWidth,
        mAttribute.mOutputHeight, mAttribute.mColorFormat, out.mBuffer->data(), mColorUtils);
}

// True when the visible frame lies inside its planes, and both frames fit their buffers.
bool TVideoSource::frameFits(const TDecodedSample& in, const TDecodedSample& out,
                             size_t outBytes) const {
    const VideoAttribute& a = mAttribute;
    if (a.mWidth < 1 || a.mHeight < 1 || outBytes == 0) return false;
    if (a.mWidth > a.mStride || a.mHeight > a.mSliceHeight) return false;
    const int64_t luma = static_cast<int64_t>(a.mStride) * a.mSliceHeight;
    const int64_t chroma = 2 * ((int64_t{a.mStride} + 1) / 2) * ((int64_t{a.mSliceHeight} + 1) / 2);
    return in.mBuffer != nullptr && luma + chroma <= static_cast<int64_t>(in.mSize) &&
           outBytes <= out.mBuffer->capacity();
}

void TVideoSource::pushPresentationTime(int64_t timeUs) { mPresentationTimes.push_back(timeUs); }

int TVideoSource::getWaitingSampleCount() { return static_cast<int>(mPresentationTimes.size()); }

int TVideoSource::getCurrentEffect(int64_t timeUs) {
    QM_LOGV(kTag, "getCurrentEffect(%lld) : start", wide(timeUs));
    Mutex::Autolock guard(mDecodedLock);
    if (!mAttribute.mUseSurface) return 0;
    // mSurfaceParam1 begins with an address, which is as wide as this machine's addresses.
    static_assert(sizeof(const int32_t*) <= sizeof(OpaqueParam), "the parameter holds an address");
    const int32_t* effect;
    memcpy(&effect, &mAttribute.mSurfaceParam1, sizeof(effect));
    return *effect;
}

const EncoderPump::Kind TVideoSource::MediaEncoderThread::kKind = {kTag,
                                                                   TVideoSource::kTag,
                                                                   "TrasnVideoEn_looper",
                                                                   "call Video encoder create",
                                                                   "Video encoder input EOS",
                                                                   false,
                                                                   checks::kVideoEncoderInputs,
                                                                   checks::kVideoEncoderOutputs,
                                                                   checks::kNewVideoEncoderOutputs,
                                                                   checks::kNewVideoEncoderFormat};

TVideoSource::MediaEncoderThread::MediaEncoderThread(sp<TVideoSource> source)
    : Thread(false),
      mSource(source),
      mPump(kKind,
            {*this, *this, mPauseLock, mVideoEncoder, mEncodedFrameCount, mEncodedByteCount,
             mDequeueTimeoutUs},
            source->mCore,
            {[this](TDecodedSample& out) { return readDecodedData(out); },
             [this](status_t err, size_t index) { return onDequeuedInput(err, index); },
             [this](const sp<MediaCodec>& codec) { return drainEncoder(codec); }}) {
    sp<AMessage> format;
    {
        Mutex::Autolock guard(mSource->mFormatLock);
        format = mSource->mEncoderFormat;
    }
    mValid = mPump.setUp(format, nullptr);
}

TVideoSource::MediaEncoderThread::~MediaEncoderThread() {
    QM_LOGV(kTag, "Decontructor MediaEncoderThread");
}

Next TVideoSource::MediaEncoderThread::onDequeuedInput(status_t err, size_t /* index */) {
    if (err != OK) QM_LOGV(kTag, "Not OK dequeueInputBuffer");
    if (err != OK && err != -EAGAIN) {
        QM_LOGW(kTag, "Encoder input [%d]", err);
        mPump.fail();
        mExitRequested = true;
        return Next::kEnd;
    }
    if (!mSource->mCodecStopped) return Next::kGoOn;
    if (err == OK) {
        QM_LOGV(kTag, "the codec was stopped");
    } else {
        QM_LOGD(kTag, "input thread forced stop by others");
    }
    return Next::kEnd;
}

status_t TVideoSource::MediaEncoderThread::readDecodedData(TDecodedSample& out) {
    SourceCore& core = mSource->mCore;
    Mutex::Autolock guard(core.decoded.lock());
    const status_t err = core.awaitDecoded(kTag, mExitRequested);
    if (err != OK) return err;

    TDecodedSample head = core.decoded.pop();
    // Only an end-of-stream marker has no buffer. A marker with further flags ends the track, too.
    if (head.mFlags == kFlagEOS || head.mBuffer == nullptr) {
        QM_LOGV(kTag, "inputSample EOS");
        core.decoded.wakeProducer();
        return ERROR_END_OF_STREAM;
    }
    mSource->cropFrame(head, out, true);
    if (out.mSize == 0) return BAD_VALUE;
    out.mPresentationTimeUs = head.mPresentationTimeUs;
    out.mFlags = head.mFlags;
    mLastInputTimeUs = head.mPresentationTimeUs;
    return OK;
}

// Forwards the encoder's outputs until none is left, the last one was taken or the source is
// stopped. Returns the result of the dequeue that ended the loop, or OK.
status_t TVideoSource::MediaEncoderThread::drainOutput(const sp<MediaCodec>& codec) {
    while (!mOutputEOS) {
        TEncodedSample output;
        const status_t err =
            codec->dequeueOutputBuffer(&output.mIndex, &output.mOffset, &output.mSize,
                                       &output.mTimeUs, &output.mFlags, mDequeueTimeoutUs);
        if (err != OK) {
            QM_LOGV(kTag, "Error[%d], flags[%x]", err, output.mFlags);
            if ((output.mFlags & kFlagEOS) != 0) {
                QM_LOGV(kTag, "reached EOS on output.(in dequeue Erro) : %lld",
                        wide(mEncodedFrameCount));
                mOutputEOS = true;
            }
            return err;
        }
        if (mSource->mCodecStopped) {
            QM_LOGV(kTag, "the codec was stopped");
            break;
        }
        forwardOutput(codec, &output);
    }
    return OK;
}

// The output with the end-of-stream flag has no frame, so it is not forwarded.
void TVideoSource::MediaEncoderThread::forwardOutput(const sp<MediaCodec>& codec,
                                                     TEncodedSample* output) {
    mPump.takeOutput(output);
    const bool last = (output->mFlags & kFlagEOS) != 0;
    output->mSpare2 = kDurationFromFrameRate;
    if (!last && mSource->pushEncodedBuffer(output) == BAD_VALUE) mPump.fail();
    codec->releaseOutputBuffer(output->mIndex);
    if (last) mPump.endOutput();
}

Next TVideoSource::MediaEncoderThread::drainEncoder(const sp<MediaCodec>& codec) {
    const status_t result = drainOutput(codec);
    Next next = Next::kGoOn;
    if (result == OK) {
        QM_LOGV(kTag, "State is OK");
    } else if (result == -EAGAIN) {
        if (mSource->mEOSSampleAdded) mSource->setCodecStopped();
        if (mSource->mCodecStopped) next = mPump.endStoppedOutput();
    } else if (!mPump.handleChange(codec, result)) {
        QM_LOGW(kTag, "Encoder output [%d]", result);
        next = mPump.fail();
    }
    if (mOutputEOS && !mSource->mCodecStopped) mSource->setCodecStopped();
    if (mOutputEOS || next == Next::kEnd) mExitRequested = true;
    return next;
}

void TVideoSource::MediaEncoderThread::signalEndOfInputStream() {
    const sp<MediaCodec> codec = mPump.codec();
    if (codec == nullptr) return;
    QM_LOGD(kTag, "call signalEndOfInputStream");
    codec->signalEndOfInputStream();
}

void TVideoSource::MediaEncoderThread::startOutputPortThread() {
    QM_LOGV(kTag, "startOutputPortThread start");
    mPump.startDetached(&mOutputThread, outputThreadWrapper, this);
    QM_LOGV(kTag, "startOutputPortThread end");
}

}  // namespace qmmediaeditor
}  // namespace android
