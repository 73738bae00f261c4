#include <Log.h>
#include <TVideoSource.h>
#include <editorutils/QmMediaEditorColorConverter.h>
#include <media/stagefright/Utils.h>

namespace android {
namespace qmmediaeditor {

namespace {

constexpr int32_t kDefaultFrameBufferSize = 10;
constexpr int32_t kColorFormatYUV420Planar = 19;
constexpr status_t kEnableFailed = -1100;

}  // namespace

TVideoSource::TVideoSource(const VideoAttribute& attribute)
    : mAttribute(attribute),
      mOutputFormat(new AMessage),
      mEncoderFormat(new AMessage),
      mMeta(new MetaData) {
    QM_LOGV(kTag, "Constructor Video TransSource");
    Mutex::Autolock guard(mDecodedLock);
    initVideoSource();
    mValid = true;
}

TVideoSource::~TVideoSource() {
    QM_LOGV(kTag, "Decontructor TVideoSource start");
    EncoderThreadControl::retire(mMediaEncoderThread);
    delete mGroup;
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

// Bytes of one 4:2:0 picture of the output, 0 for a size that cannot be.
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
    const status_t err = makePool(frameBytes);
    if (err != OK) return err;

    if (mMediaEncoderThread != nullptr) {
        mMediaEncoderThread->stopEncoder();
        BatchHandOff::wakeDecodedSide(*this);
        EncoderThreadControl::retire(mMediaEncoderThread);
    }
    mMediaEncoderThread = new MediaEncoderThread(this);
    if (!mMediaEncoderThread->isValid() ||
        !EncoderThreadControl::startOutputLoop(*mMediaEncoderThread, kTag)) {
        QM_LOGE(kTag, "MediaEncoderThread error");
        return kEnableFailed;
    }
    QM_LOGV(kTag, "Allocated MediaBuffer size : %d", frameBytes);
    return OK;
}

status_t TVideoSource::makePool(int32_t sizeBytes) {
    Mutex::Autolock encoded(mEncodedLock);
    mLastTimeUs = -1;
    BatchHandOff::dropPool(mGroup);
    MediaBufferBase* buffer =
        sizeBytes < 1 ? nullptr : MediaBufferBase::Create(static_cast<size_t>(sizeBytes));
    if (buffer == nullptr) {
        QM_LOGE(kTag, "MediaBufferBase create is null");
        return kEnableFailed;
    }
    mGroup = new MediaBufferGroup;
    mGroup->add_buffer(buffer);
    return OK;
}

status_t TVideoSource::setDecoderOutputFormat(sp<AMessage> format) {
    Mutex::Autolock guard(mDecodedLock);
    return setHdrOutputFormat(format);
}

status_t TVideoSource::setHdrOutputFormat(const sp<AMessage>& format) {
    QM_LOGV(kTag, "setDecoderOutputFormat : %s", format->debugString().c_str());
    mColorUtils = new QmMediaEditorColorUtils;
    sp<AMessage> copy = format->dup();
    copy->setInt32("color-format", kColorFormatYUV420Planar);
    const int width = mAttribute.mOutputWidth;
    const int height = mAttribute.mOutputHeight;
    QM_LOGD(kTag, "%dx%d", width, height);
    mColorUtils->setOutputFormat(copy, width, height, 0, 0, width - 1, height - 1, width, height);
    return OK;
}

status_t TVideoSource::start(MetaData*) { return BatchHandOff::start(*this); }

status_t TVideoSource::stop() {
    QM_LOGV(kTag, "Call stop function");
    BatchHandOff::stop(*this);
    QM_LOGV(kTag, "Call TVideoSource stop function end");
    return OK;
}

sp<MetaData> TVideoSource::getFormat() {
    Mutex::Autolock guard(mFormatLock);
    convertMessageToMetaData(mOutputFormat, mMeta);
    return mMeta;
}

status_t TVideoSource::read(MediaBufferBase** buffer, const ReadOptions*) {
    return BatchHandOff::read(*this, buffer, [](const TEncodedSample& sample, MetaDataBase& meta) {
        if ((sample.mFlags & MediaCodec::BUFFER_FLAG_CODECCONFIG) != 0) {
            meta.setInt32(kKeyIsCodecConfig, 1);
        }
        if ((sample.mFlags & MediaCodec::BUFFER_FLAG_SYNCFRAME) != 0) {
            meta.setInt32(kKeyIsSyncFrame, 1);
        }
        meta.setInt64(kKeyTime, sample.mTimeUs);
        // The encoder does not reorder: pictures are decoded in the order in which they are shown.
        meta.setInt64(kKeyDecodingTime, sample.mTimeUs);
    });
}

bool TVideoSource::getRunning() { return mStarted; }

void TVideoSource::setCodecStopped() { BatchHandOff::setCodecStopped(*this); }

void TVideoSource::reportFailure(int32_t result) {
    mFailure = result;
    setCodecStopped();
}

void TVideoSource::signalBufferReturned(MediaBufferBase* buffer) {
    Mutex::Autolock guard(mEncodedLock);
    QM_LOGV(kTag, "buffer returned %p", static_cast<void*>(buffer));
}

void TVideoSource::stopThread() {
    QM_LOGV(kTag, "mMediaEncoderThread stopThread");
    EncoderThreadControl::retire(mMediaEncoderThread);
}

status_t TVideoSource::pushEncodedBuffer(TEncodedSample* sample) {
    Mutex::Autolock guard(mEncodedLock);
    if (!mStarted && mCodecStopped) return ERROR_END_OF_STREAM;
    BatchHandOff::waitForStart(
        *this, "wait @ Buffer Start conditionpushEncodedBuffer called before start");

    if (sample->mBuffer == nullptr) {
        QM_LOGE(kTag, "pushEncodedBuffer get an NULL buffer");
        return BAD_VALUE;
    }
    if (mCodecStopped) {
        QM_LOGV(kTag, "enter push encoded buffer in EOS State");
        return ERROR_END_OF_STREAM;
    }
    TEncodedSample copy = *sample;
    copy.mBuffer = BatchHandOff::copyOf(sample->mBuffer, sample->mSize);
    if (copy.mBuffer == nullptr) return BAD_VALUE;
    stampDecodingTime(&copy);
    mEncodedSamples.push_back(copy);
    BatchHandOff::handOver(
        mEncodedLock, mEncodedSamples, static_cast<size_t>(mMaxEncodedSamples), mFrameAvailableCond,
        mBufferReturnedCond, [this]() -> bool { return mCodecStopped; },
        [](size_t count) {
            QM_LOGV(kTag,
                    "wait @ buffer returned condition in pushEncodedBuffer [EncodedSample:%zu]",
                    count);
        });
    return OK;
}

// Decoding times go up by the sample's duration, never beyond a presentation time that lies before
// them.
void TVideoSource::stampDecodingTime(TEncodedSample* sample) {
    int64_t timeUs = sample->mDecodingTimeUs;
    if (mLastTimeUs <= 0) {
        timeUs = sample->mTimeUs;
    } else if (sample->mSpare2 >= 0) {
        timeUs = mLastTimeUs + sample->mSpare2;
    } else if (sample->mSpare2 == -1) {
        timeUs = mLastTimeUs + mFrameIntervalUs;
    }
    if (sample->mTimeUs < timeUs) timeUs = sample->mTimeUs;
    mLastTimeUs = timeUs;
    sample->mDecodingTimeUs = timeUs;
}

status_t TVideoSource::pushDecodedBuffer(TDecodedSample& sample, bool stopOnEOS) {
    {
        Mutex::Autolock encoded(mEncodedLock);
        BatchHandOff::waitForStart(*this, "pushBuffer called before start");
    }
    if ((sample.mFlags & MediaCodec::BUFFER_FLAG_EOS) != 0) {
        return pushEndOfStream(sample, stopOnEOS);
    }

    Mutex::Autolock guard(mDecodedLock);
    if (sample.mBuffer == nullptr) {
        QM_LOGE(kTag, "pushDecodedBuffer get an NULL buffer");
        return BAD_VALUE;
    }
    if (mCodecStopped) return ERROR_END_OF_STREAM;
    if (sample.mPresentationTimeUs < mNextFrameTimeUs) {
        QM_LOGD(kTag, "drop %lld > %lld", wide(mNextFrameTimeUs), wide(sample.mPresentationTimeUs));
        return OK;
    }
    mNextFrameTimeUs = sample.mPresentationTimeUs + mFrameIntervalUs;

    TDecodedSample copy = sample;
    copy.mBuffer = BatchHandOff::copyOf(sample.mBuffer, sample.mSize);
    if (copy.mBuffer == nullptr) return BAD_VALUE;
    mDecodedSamples.push_back(copy);
    // Without an encoder there is nobody to wait for: it is this very thread that enables it.
    if (mMediaEncoderThread != nullptr) {
        BatchHandOff::handOver(
            mDecodedLock, mDecodedSamples, static_cast<size_t>(mMaxDecodedSamples),
            mDecodedAvailableCond, mDecoderBufferReturnedCond,
            [this] { return BatchHandOff::stopWanted(*this); },
            [](size_t count) {
                QM_LOGV(kTag, "wait@mDecoderBufferReturnedCond [DecodedSample:%zu]", count);
            });
    }
    return OK;
}

status_t TVideoSource::pushEndOfStream(const TDecodedSample& sample, bool stopOnEOS) {
    QM_LOGV(kTag, "The input source is reached EOS %d", stopOnEOS);
    // Without an encoder nobody would carry the record to the writer.
    if (stopOnEOS || mMediaEncoderThread == nullptr) {
        setCodecStopped();
        return ERROR_END_OF_STREAM;
    }
    Mutex::Autolock guard(mDecodedLock);
    if (!mEOSSampleAdded && !mCodecStopped) {
        TDecodedSample record;
        record.mFlags = sample.mFlags;
        mDecodedSamples.push_back(record);
        mDecodedAvailableCond.signal();
    }
    return ERROR_END_OF_STREAM;
}

void TVideoSource::cropFrame(TDecodedSample& in, TDecodedSample& out,
                             bool convert) NO_THREAD_SAFETY_ANALYSIS {
    if (!convert) return;
    const size_t outBytes = static_cast<unsigned>(static_cast<double>(mAttribute.mOutputWidth) *
                                                  mAttribute.mOutputHeight * 1.5);
    if (!pictureFits(in, out, outBytes)) {
        QM_LOGE(kTag, "picture of %zu bytes does not hold %dx%d in %dx%d, or %zu bytes are too few",
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

// The visible picture lies inside its planes, and both pictures inside their buffers.
bool TVideoSource::pictureFits(const TDecodedSample& in, const TDecodedSample& out,
                               size_t outBytes) const {
    const VideoAttribute& a = mAttribute;
    if (a.mWidth < 1 || a.mHeight < 1 || a.mOutputWidth < 1 || a.mOutputHeight < 1) return false;
    if (a.mWidth > a.mStride || a.mHeight > a.mSliceHeight) return false;
    const int64_t luma = static_cast<int64_t>(a.mStride) * a.mSliceHeight;
    const int64_t chroma =
        2 * ((static_cast<int64_t>(a.mStride) + 1) / 2) * ((a.mSliceHeight + 1) / 2);
    return in.mBuffer != nullptr && luma + chroma <= static_cast<int64_t>(in.mSize) &&
           outBytes <= out.mBuffer->capacity();
}

void TVideoSource::pushPresentationTime(int64_t timeUs) { mPresentationTimes.push_back(timeUs); }

int TVideoSource::getWaitingSampleCount() { return static_cast<int>(mPresentationTimes.size()); }

int TVideoSource::getCurrentEffect(int64_t timeUs) {
    QM_LOGV(kTag, "getCurrentEffect(%lld) : start", wide(timeUs));
    Mutex::Autolock guard(mDecodedLock);
    if (!mAttribute.mUseSurface) return 0;
    // The host's parameter begins with an address; as wide as one is on this machine.
    static_assert(sizeof(const int32_t*) <= sizeof(OpaqueParam), "the parameter holds an address");
    const int32_t* effect;
    memcpy(&effect, &mAttribute.mSurfaceParam1, sizeof(effect));
    return *effect;
}

}  // namespace qmmediaeditor
}  // namespace android
