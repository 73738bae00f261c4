#include <Log.h>
#include <TAudioSource.h>
#include <media/stagefright/Utils.h>

namespace android {
namespace qmmediaeditor {

namespace {

constexpr int32_t kEncoderMaxInputSize = 1048576;
constexpr status_t kEnableFailed = -1100;

}  // namespace

TAudioSource::TAudioSource(const AudioAttribute& attribute)
    : mFormat(new AMessage), mMeta(new MetaData) {
    takeAttribute(attribute);
    QM_LOGV(kTag, "Constructor Audio TransSource");
    initAudioSource();
    mValid = true;
}

TAudioSource::~TAudioSource() {
    QM_LOGV(kTag, "Decontructor TAudioSource start");
    EncoderThreadControl::retire(mMediaEncoderThread);
    delete mGroup;
    if (mHasEffect) QM_LOGV(kTag, "Effect Chain destroyed");
    QM_LOGV(kTag, "Decontructor TAudioSource end");
}

void TAudioSource::takeAttribute(const AudioAttribute& attribute) {
    mMime = attribute.mMime;
    mBitrate = attribute.mBitrate;
    mSampleRate = attribute.mSampleRate;
    mChannelCount = attribute.mChannelCount;
    mBitsPerSample = attribute.mBitsPerSample;
    mAacProfile = attribute.mAacProfile;
    mHasEffect = attribute.mHasEffect;
    mEffectInfo = attribute.mEffectInfo;
    mEffectParam = attribute.mEffectParam;
    mMaxInputSize = attribute.mMaxInputSize;
    mInputSampleRate = attribute.mInputSampleRate;
    mInputChannelCount = attribute.mInputChannelCount;
    mInputBitsPerSample = attribute.mInputBitsPerSample;
    mCsd = attribute.mCsd;
}

void TAudioSource::initAudioSource() {
    {
        Mutex::Autolock guard(mFormatLock);
        mFormat->setString("mime", mMime);
        mFormat->setInt32("channel-count", mChannelCount);
        mFormat->setInt32("sample-rate", mSampleRate);
        mFormat->setInt32("bit-depth", mBitsPerSample);
        if (mAacProfile >= 1) mFormat->setInt32("aac-profile", mAacProfile);
        mFormat->setInt32("bitrate", mBitrate);
        mFormat->setInt32("max-input-size", kEncoderMaxInputSize);
        mFormat->setInt32("input-channel-count", mInputChannelCount);
        mFormat->setInt32("input-sample-rate", mInputSampleRate);
        mFormat->setInt32("input-bit-depth", mInputBitsPerSample);
        if (mCsd != nullptr) {
            QM_LOGV(kTag, "[bypass mode] Setting audio csd0");
            mFormat->setBuffer("csd-0", mCsd);
        }
    }
    checkAudioInfo();
}

void TAudioSource::checkAudioInfo() {
    QM_LOGV(kTag, "checkAudioInfo start");
    QM_LOGV(kTag, "AudioInfo : hasEffect[%d][%d]", mHasEffect, mEffectInfo.mWords[0]);
    if (mHasEffect) QM_LOGI(kTag, "unsupport audio effect %d", 1);
}

status_t TAudioSource::enable(const AudioAttribute& attribute, sp<AMessage> decoderOutputFormat) {
    QM_LOGV(kTag, "TAudioSource decoderoutput: %s", decoderOutputFormat->debugString().c_str());
    takeAttribute(attribute);
    initAudioSource();
    const status_t err = makePool();
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
    return OK;
}

status_t TAudioSource::makePool() {
    Mutex::Autolock encoded(mEncodedLock);
    BatchHandOff::dropPool(mGroup);
    MediaBufferBase* buffer = MediaBufferBase::Create(static_cast<size_t>(mMaxInputSize));
    if (buffer == nullptr) {
        QM_LOGE(kTag, "MediaBufferBase create is null");
        return kEnableFailed;
    }
    mGroup = new MediaBufferGroup;
    mGroup->add_buffer(buffer);
    return OK;
}

status_t TAudioSource::start(MetaData*) { return BatchHandOff::start(*this); }

status_t TAudioSource::stop() {
    QM_LOGV(kTag, "Call stop function");
    BatchHandOff::stop(*this);
    QM_LOGV(kTag, "Call TAudioSource stop function end");
    return OK;
}

sp<MetaData> TAudioSource::getFormat() {
    Mutex::Autolock guard(mFormatLock);
    convertMessageToMetaData(mFormat, mMeta);
    return mMeta;
}

status_t TAudioSource::read(MediaBufferBase** buffer, const ReadOptions*) {
    return BatchHandOff::read(*this, buffer, [](const TEncodedSample& sample, MetaDataBase& meta) {
        if ((sample.mFlags & MediaCodec::BUFFER_FLAG_CODECCONFIG) != 0) {
            QM_LOGV(kTag, "Set Codec Config");
            meta.setInt32(kKeyIsCodecConfig, 1);
        }
        meta.setInt32(kKeyIsSyncFrame, 1);
        meta.setInt64(kKeyTime, sample.mTimeUs);
        meta.setInt64(kKeyDecodingTime, sample.mDecodingTimeUs);
    });
}

bool TAudioSource::getRunning() { return mStarted; }

void TAudioSource::setCodecStopped() { BatchHandOff::setCodecStopped(*this); }

void TAudioSource::reportFailure(int32_t result) {
    mFailure = result;
    setCodecStopped();
}

void TAudioSource::signalBufferReturned(MediaBufferBase* buffer) {
    Mutex::Autolock guard(mEncodedLock);
    QM_LOGV(kTag, "buffer returned %p", static_cast<void*>(buffer));
}

void TAudioSource::stopThread() {
    QM_LOGV(kTag, "mMediaEncoderThread stopThread");
    EncoderThreadControl::retire(mMediaEncoderThread);
}

status_t TAudioSource::pushEncodedBuffer(TEncodedSample* sample) {
    QM_LOGV(kTag, "Enter pushEncodedBuffer");
    Mutex::Autolock guard(mEncodedLock);
    if (!mStarted && mCodecStopped) return ERROR_END_OF_STREAM;
    BatchHandOff::waitForStart(*this, "waiting @ pushEncodedBuffer called before start");

    TEncodedSample copy = *sample;
    if (copy.mBuffer == nullptr) {
        QM_LOGE(kTag, "pushEncodedBuffer get an NULL buffer");
        return BAD_VALUE;
    }
    if (mCodecStopped) {
        QM_LOGV(kTag, "enter push encoded buffer in EOS State");
        return ERROR_END_OF_STREAM;
    }
    copy.mBuffer = BatchHandOff::copyOf(sample->mBuffer, sample->mSize);
    if (copy.mBuffer == nullptr) return BAD_VALUE;
    mEncodedSamples.push_back(copy);
    BatchHandOff::handOver(
        mEncodedLock, mEncodedSamples, kMaxQueuedSamples, mFrameAvailableCond, mBufferReturnedCond,
        [this]() -> bool { return mCodecStopped; },
        [](size_t count) {
            QM_LOGV(kTag, "waiting @ mBufferReturnedCond in pushEncodedBuffer [%zu]", count);
        });
    QM_LOGV(kTag, "End pushEncodedBuffer");
    return OK;
}

status_t TAudioSource::pushDecodedBuffer(TDecodedSample& sample, bool inputEnded) {
    QM_LOGV(kTag, "Call pushDecodedBuffer start");
    {
        Mutex::Autolock encoded(mEncodedLock);
        BatchHandOff::waitForStart(*this, "pushBuffer called before start");
    }
    if ((sample.mFlags & MediaCodec::BUFFER_FLAG_EOS) != 0) {
        return pushEndOfStream(sample, inputEnded);
    }

    Mutex::Autolock guard(mDecodedLock);
    if (sample.mBuffer == nullptr) {
        QM_LOGE(kTag, "pushDecodedBuffer get an NULL buffer");
        return BAD_VALUE;
    }
    if (mCodecStopped) return ERROR_END_OF_STREAM;
    QM_LOGV(kTag, "In Sample info : size[%zu]:TimeUs[%lld]", sample.mSize,
            wide(sample.mPresentationTimeUs));
    if (mHasEffect) {
        getCurrentEffect(sample.mPresentationTimeUs);
        if (mCurrentAudioFrameLoopingNum != 0) {
            QM_LOGV(kTag, "Oops check this state and wrok around");
            mCurrentAudioFrameLoopingNum = 0;
        }
    }

    TDecodedSample copy = sample;
    copy.mBuffer = BatchHandOff::copyOf(sample.mBuffer, sample.mSize);
    if (copy.mBuffer == nullptr) return BAD_VALUE;
    copy.mPresentationTimeUs = nextTimeUs(sample.mSize);
    QM_LOGV(kTag,
            "Input Sample info : size[%zu]:TimeUs[%lld]:mCurrentAudioFrameLoopingNum[%d]:size[%zu]",
            copy.mSize, wide(copy.mPresentationTimeUs), mCurrentAudioFrameLoopingNum,
            mDecodedSamples.size());
    mDecodedSamples.push_back(copy);
    // Without an encoder there is nobody to wait for: it is this very thread that enables it.
    if (mMediaEncoderThread != nullptr) {
        BatchHandOff::handOver(
            mDecodedLock, mDecodedSamples, kMaxQueuedSamples, mDecodedAvailableCond,
            mDecoderBufferReturnedCond, [this] { return BatchHandOff::stopWanted(*this); },
            [this](size_t count) {
                if (mHasEffect) {
                    QM_LOGV(kTag,
                            "waiting @ mDecoderBufferReturnedCond in pushDecodedBuffer2 [%zu]",
                            count);
                } else {
                    QM_LOGV(kTag,
                            "waiting @ mDecoderBufferReturnedCond in pushDecodedBuffer3 [%zu]",
                            count);
                }
            });
    }
    QM_LOGV(kTag, "Call pushDecodedBuffer end");
    return OK;
}

status_t TAudioSource::pushEndOfStream(const TDecodedSample& sample, bool inputEnded) {
    QM_LOGV(kTag, "The input source is reached EOS %d", inputEnded);
    // Without an encoder nobody would carry the record to the writer.
    const bool endNow = inputEnded || mMediaEncoderThread == nullptr;
    {
        Mutex::Autolock guard(mDecodedLock);
        if (!endNow && !mEOSSampleAdded && !mCodecStopped) {
            QM_LOGV(kTag, "Add EOSInputSample");
            TDecodedSample record;
            record.mFlags = sample.mFlags;
            mDecodedSamples.push_back(record);
            mDecodedAvailableCond.signal();
        }
        mEOSSampleAdded = true;
    }
    // Takes mEncodedLock, which comes before mDecodedLock.
    if (endNow) setCodecStopped();
    return ERROR_END_OF_STREAM;
}

// The time of the next `sizeBytes` of PCM.
int64_t TAudioSource::nextTimeUs(size_t sizeBytes) {
    int32_t channels = 2;
    int32_t sampleRate = 48000;
    int32_t bitDepth = 16;
    {
        Mutex::Autolock guard(mFormatLock);
        mFormat->findInt32("input-channel-count", &channels);
        mFormat->findInt32("input-sample-rate", &sampleRate);
        mFormat->findInt32("input-bit-depth", &bitDepth);
    }
    const int64_t bytesPerSecond = static_cast<int64_t>(channels) * sampleRate * bitDepth / 8;
    const int64_t timeUs = mNextTimeUs;
    // Time stands still in a format that has no bytes a second.
    if (bytesPerSecond != 0) {
        mNextTimeUs += static_cast<int64_t>(sizeBytes) * 1000000 / bytesPerSecond;
    }
    return timeUs;
}

void TAudioSource::pushPresentationTime(int64_t) {}

int TAudioSource::getCurrentEffect(int64_t timeUs) {
    QM_LOGV(kTag, "getCurrentEffect(%lld)", wide(timeUs));
    return 0;
}

}  // namespace qmmediaeditor
}  // namespace android
