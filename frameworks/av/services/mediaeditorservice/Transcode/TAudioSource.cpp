#include <Log.h>
#include <SaturatingMath.h>
#include <TAudioSource.h>
#include <media/stagefright/MediaErrors.h>
#include <media/stagefright/Utils.h>
#include <string.h>

#include <algorithm>

namespace android {
namespace qmmediaeditor {

namespace {

constexpr int32_t kEncoderMaxInputSize = 1048576;
constexpr uint32_t kFlagEOS = MediaCodec::BUFFER_FLAG_EOS;

}  // namespace

TAudioSource::TAudioSource(const AudioAttribute& attribute) : mFormat(new AMessage) {
    takeAttribute(attribute);
    QM_LOGV(kTag, "Constructor Audio TransSource");
    initAudioSource();
    mValid = true;
}

TAudioSource::~TAudioSource() {
    QM_LOGV(kTag, "Decontructor TAudioSource start");
    dropEncoderThread();
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
    const status_t err = mCore.makePool(mMaxInputSize);
    if (err != OK) return err;
    if (mMediaEncoderThread != nullptr) mMediaEncoderThread->stopEncoder();
    dropEncoderThread();
    mMediaEncoderThread = new MediaEncoderThread(this);
    return mMediaEncoderThread->start();
}

void TAudioSource::dropEncoderThread() {
    if (mMediaEncoderThread != nullptr) mMediaEncoderThread->retire();
    mMediaEncoderThread.clear();
}

status_t TAudioSource::stop() {
    mCore.stop(mMediaEncoderThread == nullptr ? nullptr : &mMediaEncoderThread->pump());
    QM_LOGV(kTag, "Call TAudioSource stop function end");
    return OK;
}

sp<MetaData> TAudioSource::getFormat() {
    Mutex::Autolock guard(mFormatLock);
    convertMessageToMetaData(mFormat, mMeta);
    return mMeta;
}

status_t TAudioSource::read(MediaBufferBase** buffer, const ReadOptions*) {
    return mCore.read(buffer, [](const TEncodedSample& sample, MetaDataBase& meta) {
        if ((sample.mFlags & MediaCodec::BUFFER_FLAG_CODECCONFIG) != 0) {
            QM_LOGV(kTag, "Set Codec Config");
            meta.setInt32(kKeyIsCodecConfig, 1);
        }
        meta.setInt32(kKeyIsSyncFrame, 1);
        meta.setInt64(kKeyTime, sample.mTimeUs);
        meta.setInt64(kKeyDecodingTime, sample.mDecodingTimeUs);
    });
}

void TAudioSource::stopThread() {
    QM_LOGV(kTag, "mMediaEncoderThread stopThread");
    dropEncoderThread();
}

status_t TAudioSource::pushEncodedBuffer(TEncodedSample* sample) {
    QM_LOGV(kTag, "Enter pushEncodedBuffer");
    const status_t err = mCore.pushEncoded(
        *sample, kMaxQueuedSamples, "waiting @ pushEncodedBuffer called before start",
        "waiting @ mBufferReturnedCond in pushEncodedBuffer [%zu]");
    if (err == OK) QM_LOGV(kTag, "End pushEncodedBuffer");
    return err;
}

status_t TAudioSource::pushDecodedBuffer(TDecodedSample& sample, bool inputEnded) {
    QM_LOGV(kTag, "Call pushDecodedBuffer start");
    const status_t err = mCore.pushDecoded(
        sample, inputEnded, mMediaEncoderThread != nullptr, kMaxQueuedSamples,
        mHasEffect ? "waiting @ mDecoderBufferReturnedCond in pushDecodedBuffer2 [%zu]"
                   : "waiting @ mDecoderBufferReturnedCond in pushDecodedBuffer3 [%zu]",
        [this](TDecodedSample* copy) REQUIRES(mDecodedLock) { return stampTime(copy); });
    if (err == OK) QM_LOGV(kTag, "Call pushDecodedBuffer end");
    return err;
}

// Sets the timestamp to the duration of all PCM before the sample; the decoder's timestamp is only
// logged. Returns true, because no audio is dropped.
bool TAudioSource::stampTime(TDecodedSample* sample) {
    QM_LOGV(kTag, "In Sample info : size[%zu]:TimeUs[%lld]", sample->mSize,
            wide(sample->mPresentationTimeUs));
    if (mHasEffect) {
        getCurrentEffect(sample->mPresentationTimeUs);
        if (mCurrentAudioFrameLoopingNum != 0) {
            QM_LOGV(kTag, "Oops check this state and wrok around");
            mCurrentAudioFrameLoopingNum = 0;
        }
    }
    int32_t channels = 2;
    int32_t sampleRate = 48000;
    int32_t bitDepth = 16;
    {
        Mutex::Autolock guard(mFormatLock);
        mFormat->findInt32("input-channel-count", &channels);
        mFormat->findInt32("input-sample-rate", &sampleRate);
        mFormat->findInt32("input-bit-depth", &bitDepth);
    }
    sample->mPresentationTimeUs = mNextTimeUs;
    const int64_t bytesPerSecond =
        saturatingMul(static_cast<int64_t>(channels) * sampleRate, bitDepth) / 8;
    // Timestamps do not advance in a format without a byte rate, such as one with 0 channels.
    if (bytesPerSecond != 0) {
        const int64_t stepUs =
            saturatingMul(static_cast<int64_t>(sample->mSize), 1000000) / bytesPerSecond;
        mNextTimeUs = saturatingAdd(mNextTimeUs, stepUs);
    }
    QM_LOGV(kTag,
            "Input Sample info : size[%zu]:TimeUs[%lld]:mCurrentAudioFrameLoopingNum[%d]:size[%zu]",
            sample->mSize, wide(sample->mPresentationTimeUs), mCurrentAudioFrameLoopingNum,
            mDecodedSamples.size());
    return true;
}

int TAudioSource::getCurrentEffect(int64_t timeUs) {
    QM_LOGV(kTag, "getCurrentEffect(%lld)", wide(timeUs));
    return 0;
}

const EncoderPump::Kind TAudioSource::MediaEncoderThread::kKind = {kTag,
                                                                   TAudioSource::kTag,
                                                                   "TrasnAudioEn_looper",
                                                                   "call Audio encoder create",
                                                                   "Audio encoder input EOS",
                                                                   true,
                                                                   checks::kAudioEncoderInputs,
                                                                   checks::kAudioEncoderOutputs,
                                                                   checks::kNewAudioEncoderOutputs,
                                                                   checks::kNewAudioEncoderFormat};

TAudioSource::MediaEncoderThread::MediaEncoderThread(sp<TAudioSource> source)
    : Thread(false),
      mSource(source),
      mPump(kKind,
            {*this, *this, mLock, mAudioEncoder, mOutputFrameCount, mOutputBytes, mTimeoutUs},
            source->mCore,
            {[this](TDecodedSample& input) { return readDecodedData(input); },
             [this](status_t err, size_t index) { return onDequeuedInput(err, index); },
             [this](const sp<MediaCodec>& codec) { return drainEncoder(codec); }}) {
    sp<AMessage> format;
    {
        Mutex::Autolock guard(mSource->mFormatLock);
        format = mSource->mFormat;
    }
    mValid = mPump.setUp(format, [&] { return setUpConversion(*format); });
}

TAudioSource::MediaEncoderThread::~MediaEncoderThread() {
    QM_LOGV(kTag, "Decontructor MediaEncoderThread");
}

// Makes a converter when the encoder takes another PCM format than the decoder delivers.
bool TAudioSource::MediaEncoderThread::setUpConversion(const AMessage& format) {
    format.findInt32("input-channel-count", &mInChannelCount);
    format.findInt32("input-sample-rate", &mInSampleRate);
    format.findInt32("input-bit-depth", &mInBitDepth);
    format.findInt32("channel-count", &mOutChannelCount);
    format.findInt32("sample-rate", &mOutSampleRate);
    format.findInt32("bit-depth", &mOutBitDepth);
    mNeedConversion = mInChannelCount != mOutChannelCount || mInSampleRate != mOutSampleRate ||
                      mInBitDepth != mOutBitDepth;
    if (!mNeedConversion) return true;

    mConverter = new QmMediaAudioConverter;
    if (mConverter->init(mInChannelCount, mInSampleRate, mInBitDepth, mOutChannelCount,
                         mOutSampleRate, mOutBitDepth) == 0) {
        QM_LOGE(kTag, "ERROR: QmMediaAudioConverter == null or init failed");
        return false;
    }
    return true;
}

Next TAudioSource::MediaEncoderThread::onDequeuedInput(status_t err, size_t index) {
    if (err == OK) {
        QM_LOGV(kTag, "filling input buffer %zu", index);
        return Next::kGoOn;
    }
    if (mSource->mCodecStopped) {
        QM_LOGD(kTag, "input thread forced stop by others");
        return Next::kEnd;
    }
    return err == -EAGAIN ? Next::kGoOn : mPump.fail();
}

status_t TAudioSource::MediaEncoderThread::readDecodedData(TDecodedSample& input) {
    SourceCore& core = mSource->mCore;
    Mutex::Autolock guard(core.decoded.lock());
    const status_t err = core.awaitDecoded(kTag, mExitRequested);
    if (err != OK) return err;

    const TDecodedSample head = core.decoded.head();
    if (head.mFlags == kFlagEOS) {
        QM_LOGV(kTag, "inputSample EOS");
        core.decoded.wakeProducer();
        return ERROR_END_OF_STREAM;
    }
    if (head.mBuffer == nullptr) {
        // An end-of-stream record with further flags: it goes to the encoder as it is, without
        // data.
        input.mSize = 0;
    } else if (mNeedConversion) {
        const status_t converted = convertPcm(head, &input);
        if (converted != OK) return converted;
    } else {
        copyPcm(head, &input);
    }
    input.mPresentationTimeUs = head.mPresentationTimeUs;
    input.mFlags = head.mFlags;
    core.decoded.pop();
    QM_LOGV(kTag, "Check sample timeUs --> : %lld", wide(input.mPresentationTimeUs));
    return OK;
}

status_t TAudioSource::MediaEncoderThread::convertPcm(const TDecodedSample& head,
                                                      TDecodedSample* input) {
    if (mConverter == nullptr) {
        QM_LOGE(kTag, "converter is null");
        return kSourceNotEnabled;
    }
    const size_t samples = head.mSize / (mInBitDepth == 24 ? 3 : 2);
    const int frames = mInChannelCount == 0 ? 0 : static_cast<int>(samples) / mInChannelCount;
    const float ratio = static_cast<float>(mOutSampleRate) / static_cast<float>(mInSampleRate);
    unsigned char* converted = mConverter->allocateBuff(nullptr, frames, ratio);
    if (converted == nullptr) {
        QM_LOGE(kTag, "allocateBuffAFC was failed");
        return kNoResource;
    }
    const int outFrames = mConverter->process(head.mBuffer->data(), converted, frames);
    const size_t wanted = static_cast<size_t>(std::max(mOutChannelCount, 0)) *
                          static_cast<size_t>(std::max(outFrames, 0)) * 2;
    const bool isConverted = outFrames >= 0;
    const bool fits = wanted <= input->mBuffer->capacity();
    if (!isConverted) {
        QM_LOGE(kTag, "%d frames of PCM cannot be converted: %d", frames, outFrames);
    } else if (fits) {
        memcpy(input->mBuffer->base(), converted, wanted);
        input->mSize = wanted;
    } else {
        QM_LOGE(kTag, "converted PCM of %zu bytes does not fit the encoder's %zu", wanted,
                input->mBuffer->capacity());
    }
    mConverter->freeBuff(converted);
    if (!isConverted || !fits) return BAD_VALUE;
    QM_LOGV(kTag, "decoder output buffer size: %zu, encoder input buffer size: %zu",
            head.mBuffer->size(), input->mSize);
    return OK;
}

void TAudioSource::MediaEncoderThread::copyPcm(const TDecodedSample& head, TDecodedSample* input) {
    QM_LOGV(kTag, "decoder output buffer size: %zu, encoder input buffer size: %zu",
            head.mBuffer->size(), input->mBuffer->capacity());
    memcpy(input->mBuffer->base(), head.mBuffer->data(),
           std::min(head.mBuffer->size(), input->mBuffer->capacity()));
    // The full size even when less was copied: EncoderPump::fillInput() finds that it exceeds the
    // buffer, and the run ends with an error.
    input->mSize = head.mSize;
}

Next TAudioSource::MediaEncoderThread::drainEncoder(const sp<MediaCodec>& codec) {
    if (mOutputEOS) {
        QM_LOGV(kTag, "Audio encoder output EOS");
        mExitRequested = true;
        return Next::kEnd;
    }
    if (mSource->mCodecStopped) {
        QM_LOGV(kTag, "the codec was stopped");
        return Next::kEnd;
    }
    TEncodedSample& output = mOutput;
    const status_t err = codec->dequeueOutputBuffer(&output.mIndex, &output.mOffset, &output.mSize,
                                                    &output.mTimeUs, &output.mFlags, mTimeoutUs);
    if (err == OK) return forwardOutput(codec);
    if (mPump.handleChange(codec, err)) return Next::kGoOn;
    if (mSource->mCodecStopped) return mPump.endStoppedOutput();
    return err == -EAGAIN ? Next::kGoOn : mPump.fail();
}

// The output with the end-of-stream flag is forwarded only when it has data and a timestamp after
// 0.
Next TAudioSource::MediaEncoderThread::forwardOutput(const sp<MediaCodec>& codec) {
    QM_LOGV(kTag, "draining output buffer %zu, time = %lld us, size = %zu", mOutput.mIndex,
            wide(mOutput.mTimeUs), mOutput.mSize);
    mPump.takeOutput(&mOutput);
    const bool last = (mOutput.mFlags & kFlagEOS) != 0;
    const bool lastWithData = last && mOutput.mSize != 0 && mOutput.mTimeUs >= 1;
    if (lastWithData) QM_LOGD(kTag, "frame with eos");
    if ((!last || lastWithData) && mSource->pushEncodedBuffer(&mOutput) == BAD_VALUE) mPump.fail();
    const status_t err = codec->releaseOutputBuffer(mOutput.mIndex);
    if (err != OK) {
        QM_LOGV(kTag, "releaseOutputBuffer Frame index[%zu]:[Err:%d]", mOutput.mIndex, err);
    }
    if (!last) return Next::kGoOn;
    mPump.endOutput();
    return Next::kEnd;
}

}  // namespace qmmediaeditor
}  // namespace android
