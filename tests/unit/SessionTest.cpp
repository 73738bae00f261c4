#include "SessionTest.h"

#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "SourceKinds.h"

namespace android::qmmediaeditor {

SessionTest::SessionTest() {
    mRequest.mInputFd = memfd_create("input", 0);
    renewOutput();
    EXPECT_EQ(0, ftruncate(mRequest.mInputFd, kInputBytes));
    mRequest.mProgressCallback = [this](int32_t percent) { mProgress.push_back(percent); };
}

SessionTest::~SessionTest() {
    // A test of a part of a run leaves encoders behind.
    if (mSession != nullptr && mSession->mAudioSource != nullptr) mSession->mAudioSource->stop();
    if (mSession != nullptr && mSession->mVideoSource != nullptr) mSession->mVideoSource->stop();
    if (mSession != nullptr) awaitEncoders();
    mSession.reset();
    EXPECT_EQ(0u, mCalls.timeouts()) << "teardown waited for a port that did not end";
    close(mRequest.mInputFd);
    // Still open only when no session took it.
    if (mRequest.mOutputFd >= 0) close(mRequest.mOutputFd);
    EXPECT_EQ(std::vector<std::string>(), mTrap.elsewhere());
}

void SessionTest::renewOutput() {
    if (mRequest.mOutputFd >= 0) close(mRequest.mOutputFd);
    mRequest.mOutputFd = memfd_create("output", 0);
}

void SessionTest::awaitEncodersOf(Transcode& session) {
    if (session.mAudioSource != nullptr) awaitEncoderThread(*session.mAudioSource);
    if (session.mVideoSource != nullptr) awaitEncoderThread(*session.mVideoSource);
}

sp<AMessage> SessionTest::withKeys(const sp<AMessage>& message, const Keys& keys) {
    for (const auto& [name, value] : keys) message->setInt32(name, value);
    return message;
}

sp<AMessage> SessionTest::audioFormat(const Keys& keys, int64_t durationUs) {
    sp<AMessage> format = new AMessage;
    format->setString("mime", kAac);
    format->setInt64("durationUs", durationUs);
    return withKeys(withKeys(format, {{"channel-count", 2}, {"sample-rate", 48000}}), keys);
}

sp<AMessage> SessionTest::videoFormat(const Keys& keys, int64_t durationUs) {
    sp<AMessage> format = new AMessage;
    format->setString("mime", kAvc);
    format->setInt64("durationUs", durationUs);
    return withKeys(withKeys(format, {{"width", 16}, {"height", 16}, {"frame-rate", 30}}), keys);
}

sp<ABuffer> SessionTest::bufferOf(const std::vector<uint8_t>& bytes) {
    return ABuffer::CreateAsCopy(bytes.data(), bytes.size());
}

void SessionTest::prepareEchoes() {
    mPlatform.extractor().addTrack(audioFormat());
    mPlatform.extractor().addTrack(videoFormat());
    mAudioDecoder = mPlatform.decoder(kAac);
    mVideoDecoder = mPlatform.decoder(kAvc);
    mAudioEncoder = mPlatform.encoder(kAac);
    mVideoEncoder = mPlatform.encoder(kAvc);
    mAudioDecoder->formatChange(audioFormat());
    mVideoDecoder->formatChange(videoFormat({{"color-format", 19}}));
    for (const auto& codec : {mAudioDecoder, mVideoDecoder, mAudioEncoder, mVideoEncoder}) {
        codec->echo();
    }
}

void SessionTest::addSamples(size_t audioCount, size_t videoCount) {
    size_t audio = 0;
    size_t video = 0;
    while (audio < audioCount || video < videoCount) {
        const auto audioUs = static_cast<int64_t>(audio) * kAudioStepUs;
        const auto videoUs = static_cast<int64_t>(video) * kVideoStepUs;
        if (video == videoCount || (audio < audioCount && audioUs < videoUs)) {
            mPlatform.extractor().addSample(
                {0, audioUs, std::vector<uint8_t>(kPcmBytes, static_cast<uint8_t>(audio++))});
        } else {
            mPlatform.extractor().addSample(
                {1, videoUs, std::vector<uint8_t>(kFrameBytes, static_cast<uint8_t>(video++))});
        }
    }
}

void SessionTest::setPeriods(const std::vector<TrimPeriod>& periods) {
    mPeriods = periods;
    mRequest.mTrimEnabled = true;
    mRequest.mPeriodCount = static_cast<int32_t>(mPeriods.size());
    mRequest.mPeriods = mPeriods.data();
}

Transcode& SessionTest::session() {
    if (mSession == nullptr) mSession = std::make_unique<Transcode>(&mRequest, nullptr);
    return *mSession;
}

Transcode& SessionTest::renewSession() {
    mSession.reset();
    renewOutput();
    return session();
}

void SessionTest::prepareLoop() {
    ASSERT_EQ(OK, session().createModule());
    ASSERT_EQ(OK, session().verifyTrimInfo());
    session().startDecoders();
    session().mSampleBuffer = new ABuffer(session().mSampleBufferSize);
    ASSERT_EQ(OK, session().createSource());
    if (session().mAudioSource != nullptr) session().mAudioSource->start();
    if (session().mVideoSource != nullptr) session().mVideoSource->start();
    for (const auto& encoder : {mAudioEncoder, mVideoEncoder}) {
        if (encoder != nullptr) encoder->holdInput(true);
    }
}

int32_t SessionTest::run() {
    const int32_t err = session().createModule();
    return err == OK ? session().doTranscode() : err;
}

}  // namespace android::qmmediaeditor
