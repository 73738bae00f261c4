#include <qmtranscode/monitor/RunFacts.h>

#include <utility>

namespace android::qmmediaeditor::cli {

void RunFacts::onReadError(int error, int64_t offsetBytes) {
    Mutex::Autolock lock(mLock);
    if (!mReadError) mReadError = ReadError{error, offsetBytes};
}

void RunFacts::onWriteError(int error) {
    Mutex::Autolock lock(mLock);
    if (!mWriteError) mWriteError = error;
}

void RunFacts::onRefused(const std::string& reason) {
    Mutex::Autolock lock(mLock);
    if (!mRefusal) mRefusal = reason;
}

void RunFacts::onFirstSample() {
    Mutex::Autolock lock(mLock);
    if (mFirstSample) mFirstSample();
}

void RunFacts::onFrameEncoded(int64_t timeUs) {
    Mutex::Autolock lock(mLock);
    mFramesUs.push_back(timeUs);
}

void RunFacts::onAudioEncoded(int64_t samples, int sampleRate) {
    Mutex::Autolock lock(mLock);
    mAudioSamples += samples;
    mAudioRate = sampleRate;
}

void RunFacts::onVideoEnd(int64_t timeUs) {
    Mutex::Autolock lock(mLock);
    mVideoEndUs = timeUs;
}

std::optional<ReadError> RunFacts::readError() const {
    Mutex::Autolock lock(mLock);
    return mReadError;
}

std::optional<std::string> RunFacts::refusal() const {
    Mutex::Autolock lock(mLock);
    return mRefusal;
}

std::optional<int> RunFacts::writeError() const {
    Mutex::Autolock lock(mLock);
    return mWriteError;
}

void RunFacts::begin(std::function<void()> firstSample) {
    Mutex::Autolock lock(mLock);
    mFirstSample = std::move(firstSample);
    mWriteError.reset();
    mFramesUs.clear();
    mAudioSamples = 0;
    mVideoEndUs.reset();
}

std::vector<int64_t> RunFacts::framesUs() const {
    Mutex::Autolock lock(mLock);
    return mFramesUs;
}

int64_t RunFacts::audioUs() const {
    Mutex::Autolock lock(mLock);
    if (mAudioRate <= 0) return 0;
    return static_cast<int64_t>(static_cast<double>(mAudioSamples) * 1e6 / mAudioRate);
}

std::optional<int64_t> RunFacts::videoEndUs() const {
    Mutex::Autolock lock(mLock);
    return mVideoEndUs;
}

}  // namespace android::qmmediaeditor::cli
