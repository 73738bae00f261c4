#include <qmtranscode/monitor/RunStatistics.h>

#include <algorithm>
#include <limits>
#include <utility>

namespace android::qmmediaeditor::cli {

RunStatistics::RunStatistics(const std::vector<TrimPeriod>& kept) : mKept(kept) {
    int64_t timeUs = 0;
    for (const TrimPeriod& period : kept) {
        PeriodStatistics statistics;
        statistics.startUs = timeUs;
        timeUs += period.mEndUs - period.mStartUs;
        statistics.endUs = timeUs;
        periods.push_back(statistics);
    }
    if (!periods.empty()) return;
    periods.emplace_back();
    periods.back().endUs = std::numeric_limits<int64_t>::max();
}

// As the session does it: what begins at the end of a period or later begins the next one.
std::optional<int64_t> RunStatistics::keep(int64_t timeUs) {
    if (mKept.empty()) return timeUs;
    if (mCurrent < mKept.size() && timeUs >= mKept[mCurrent].mEndUs) ++mCurrent;
    if (mCurrent == mKept.size()) return std::nullopt;
    const TrimPeriod& period = mKept[mCurrent];
    if (timeUs < period.mStartUs || timeUs >= period.mEndUs) return std::nullopt;
    return periods[mCurrent].startUs + timeUs - period.mStartUs;
}

void RunStatistics::addFrame(int64_t timeUs) {
    if (const auto outputUs = keep(timeUs)) mFrames.push_back({*outputUs, mCurrent});
}

void RunStatistics::compareWith(const std::vector<int64_t>& encodedUs, int frameRate) {
    const int64_t intervalUs = frameRate > 0 ? 1000000 / frameRate : 0;
    int64_t nextUs = std::numeric_limits<int64_t>::min();
    auto encoded = encodedUs.begin();
    for (const Frame& frame : mFrames) {
        const bool isEncoded = encoded != encodedUs.end() && *encoded == frame.timeUs;
        if (isEncoded) {
            ++encoded;
            nextUs = frame.timeUs + intervalUs;
        }
        if (isEncoded || frame.timeUs >= nextUs) {
            ++framesDue;
        } else {
            ++periods[frame.period].dropped;
        }
    }
}

int64_t RunStatistics::dropped() const {
    int64_t sum = 0;
    for (const PeriodStatistics& period : periods) sum += period.dropped;
    return sum;
}

void RunStatistics::addAudio(int64_t timeUs, int64_t samples, int sampleRate) {
    const std::optional<int64_t> outputUs = keep(timeUs);
    if (!outputUs) return;
    mSampleRate = sampleRate;
    PeriodStatistics& period = periods[mCurrent];
    if (!period.audioStartUs) {
        period.audioStartUs = outputUs;
        // A frame is shown at its timestamp; audio is played after the audio before it.
        period.skewUs = audioLengthUs(mSamples) - *outputUs;
    }
    mSamples += samples;
    period.audioEndUs = *outputUs + audioLengthUs(samples);
}

int64_t RunStatistics::audioLengthUs(int64_t samples) const {
    if (mSampleRate <= 0) return 0;
    return static_cast<int64_t>(static_cast<double>(samples) * 1e6 / mSampleRate);
}

void RunObserver::onReadError(int error, int64_t offsetBytes) {
    Mutex::Autolock lock(mLock);
    if (!mReadError) mReadError = ReadError{error, offsetBytes};
}

void RunObserver::onWriteError(int error) {
    Mutex::Autolock lock(mLock);
    if (!mWriteError) mWriteError = error;
}

void RunObserver::onRefused(const std::string& reason) {
    Mutex::Autolock lock(mLock);
    if (!mRefusal) mRefusal = reason;
}

void RunObserver::onDiscontinuity() {
    Mutex::Autolock lock(mLock);
    mHasDiscontinuity = true;
}

void RunObserver::onDecoderOpened(bool isVideo, const std::string& name) {
    Mutex::Autolock lock(mLock);
    (isVideo ? mVideo : mAudio).decoder = name;
}

void RunObserver::onEncoderOpened(bool isVideo, const std::string& name,
                                  const sp<AMessage>& format) {
    Mutex::Autolock lock(mLock);
    TrackCodecs& track = isVideo ? mVideo : mAudio;
    track.encoder = name;
    track.format = format;
}

void RunObserver::onFrameDecoded(int64_t timeUs) {
    Mutex::Autolock lock(mLock);
    mStatistics.addFrame(timeUs);
}

void RunObserver::onAudioDecoded(int64_t timeUs, int64_t samplesPerChannel, int sampleRate) {
    Mutex::Autolock lock(mLock);
    mStatistics.addAudio(timeUs, samplesPerChannel, sampleRate);
}

void RunObserver::onPacketSkipped(bool isVideo) {
    Mutex::Autolock lock(mLock);
    ++(isVideo ? mVideo : mAudio).skippedPackets;
}

void RunObserver::onInterlacedFrame(bool wasDeinterlaced) {
    Mutex::Autolock lock(mLock);
    ++mVideo.interlacedFrames;
    if (wasDeinterlaced) ++mVideo.deinterlacedFrames;
}

void RunObserver::onDeinterlacingFailed(const std::string& reason) {
    Mutex::Autolock lock(mLock);
    mVideo.deinterlacingFailure = reason;
}

void RunObserver::onFirstSample() {
    Mutex::Autolock lock(mLock);
    if (mOnFirstSample) mOnFirstSample();
}

void RunObserver::onFrameEncoded(int64_t timeUs) {
    Mutex::Autolock lock(mLock);
    mFramesUs.push_back(timeUs);
}

void RunObserver::onAudioEncoded(int64_t samples, int sampleRate) {
    Mutex::Autolock lock(mLock);
    mAudioSamples += samples;
    mAudioRate = sampleRate;
}

void RunObserver::onPacketEncoded(bool isVideo, int64_t timeUs, uint64_t checksum) {
    Mutex::Autolock lock(mLock);
    (isVideo ? mChecks.videoPackets : mChecks.audioPackets).push_back({timeUs, checksum});
}

void RunObserver::onFrameChecked(const FrameCheck& frame) {
    Mutex::Autolock lock(mLock);
    mChecks.frames.push_back(frame);
}

void RunObserver::onAudioChecked(const AudioCheck& audio) {
    Mutex::Autolock lock(mLock);
    mChecks.audio.push_back(audio);
}

void RunObserver::onCheckFailed(const std::string& reason) {
    Mutex::Autolock lock(mLock);
    mChecks.failure = reason;
}

void RunObserver::onTrackStart(bool isVideo, int64_t timeUs) {
    Mutex::Autolock lock(mLock);
    mTrackStartsUs[isVideo ? 1 : 0] = timeUs;
}

int64_t RunObserver::trackStartUs(bool isVideo) const {
    Mutex::Autolock lock(mLock);
    return mTrackStartsUs[isVideo ? 1 : 0];
}

void RunObserver::onVideoEnd(int64_t timeUs) {
    Mutex::Autolock lock(mLock);
    mVideoEndUs = timeUs;
}

std::optional<ReadError> RunObserver::readError() const {
    Mutex::Autolock lock(mLock);
    return mReadError;
}

bool RunObserver::hasDiscontinuity() const {
    Mutex::Autolock lock(mLock);
    return mHasDiscontinuity;
}

std::optional<std::string> RunObserver::refusal() const {
    Mutex::Autolock lock(mLock);
    return mRefusal;
}

std::optional<int> RunObserver::writeError() const {
    Mutex::Autolock lock(mLock);
    return mWriteError;
}

void RunObserver::begin(const std::vector<TrimPeriod>& periods,
                        std::function<void()> onFirstSample) {
    Mutex::Autolock lock(mLock);
    mStatistics = RunStatistics(periods);
    mOnFirstSample = std::move(onFirstSample);
    mWriteError.reset();
    mVideo = {};
    mAudio = {};
    mFramesUs.clear();
    mAudioSamples = 0;
    mVideoEndUs.reset();
    mChecks = {};
}

RunStatistics RunObserver::statistics() const {
    Mutex::Autolock lock(mLock);
    RunStatistics result = mStatistics;
    float frameRate = 0;
    if (mVideo.format != nullptr) mVideo.format->findFloat("frame-rate", &frameRate);
    result.compareWith(mFramesUs, static_cast<int>(frameRate));
    return result;
}

TrackCodecs RunObserver::video() const {
    Mutex::Autolock lock(mLock);
    return mVideo;
}

TrackCodecs RunObserver::audio() const {
    Mutex::Autolock lock(mLock);
    return mAudio;
}

std::vector<int64_t> RunObserver::framesUs() const {
    Mutex::Autolock lock(mLock);
    return mFramesUs;
}

RunObserver::Position RunObserver::position() const {
    Mutex::Autolock lock(mLock);
    if (mFramesUs.empty()) return {0, audioUsLocked()};
    return {static_cast<int64_t>(mFramesUs.size()), mFramesUs.back()};
}

int64_t RunObserver::audioUs() const {
    Mutex::Autolock lock(mLock);
    return audioUsLocked();
}

int64_t RunObserver::audioUsLocked() const {
    if (mAudioRate <= 0) return 0;
    return static_cast<int64_t>(static_cast<double>(mAudioSamples) * 1e6 / mAudioRate);
}

std::optional<int64_t> RunObserver::videoEndUs() const {
    Mutex::Autolock lock(mLock);
    return mVideoEndUs;
}

EncodingChecks RunObserver::checks() const {
    Mutex::Autolock lock(mLock);
    return mChecks;
}

}  // namespace android::qmmediaeditor::cli
