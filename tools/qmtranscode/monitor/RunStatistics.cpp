#include <qmtranscode/monitor/RunStatistics.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <utility>

namespace android::qmmediaeditor::cli {

namespace {

// Begins the message with the format of the decoded audio, as AMessage::debugString writes it.
constexpr std::string_view kPcmFormat = "TAudioSource decoderoutput: ";

// The number with this name in such a format; 0 when it is not there.
int64_t formatNumber(std::string_view format, const std::string& name) {
    // The line break, because another name may end in the same way.
    const std::string key = "\n  " + name + " = int32 ";
    const size_t at = format.find(key);
    if (at == std::string_view::npos) return 0;
    int64_t number = 0;
    std::from_chars(format.data() + at + key.size(), format.data() + format.size(), number);
    return number;
}

}  // namespace

RunStatistics::RunStatistics(const std::vector<TrimPeriod>& kept) {
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

void RunStatistics::add(std::string_view message, const LogEvent* event) {
    if (event != nullptr) {
        const LogPattern& pattern = *event->pattern;
        if (pattern.stage == Stage::kVideoDecoded) ++framesDecoded;
        if (pattern.change == QueueChange::kDropped) ++periodAt(event->second).dropped;
        if (pattern.stage == Stage::kAudioDecoded) addAudio(event->first, event->second);
    } else if (message.substr(0, kPcmFormat.size()) == kPcmFormat) {
        mAudioBytesPerSecond = formatNumber(message, "sample-rate") *
                               formatNumber(message, "channel-count") *
                               formatNumber(message, "bits-per-sample") / 8;
    }
}

int64_t RunStatistics::dropped() const {
    int64_t sum = 0;
    for (const PeriodStatistics& period : periods) sum += period.dropped;
    return sum;
}

PeriodStatistics& RunStatistics::periodAt(int64_t timeUs) {
    size_t i = 0;
    while (i + 1 < periods.size() && timeUs >= periods[i].endUs) ++i;
    mPeriodsStarted = std::max(mPeriodsStarted, i + 1);
    return periods[i];
}

void RunStatistics::addAudio(int64_t bytes, int64_t timeUs) {
    PeriodStatistics& period = periodAt(timeUs);
    if (!period.audioStartUs) {
        period.audioStartUs = timeUs;
        // A frame is shown at its timestamp; audio is played after the audio before it.
        period.skewUs = audioLengthUs(mAudioBytes) - timeUs;
    }
    mAudioBytes += bytes;
    period.audioEndUs = timeUs + audioLengthUs(bytes);
}

int64_t RunStatistics::audioLengthUs(int64_t bytes) const {
    if (mAudioBytesPerSecond == 0) return 0;
    return static_cast<int64_t>(static_cast<double>(bytes) * 1e6 /
                                static_cast<double>(mAudioBytesPerSecond));
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

std::optional<std::string> RunObserver::refusal() const {
    Mutex::Autolock lock(mLock);
    return mRefusal;
}

std::optional<int> RunObserver::writeError() const {
    Mutex::Autolock lock(mLock);
    return mWriteError;
}

void RunObserver::begin(std::function<void()> onFirstSample) {
    Mutex::Autolock lock(mLock);
    mOnFirstSample = std::move(onFirstSample);
    mWriteError.reset();
    mVideo = {};
    mAudio = {};
    mFramesUs.clear();
    mAudioSamples = 0;
    mVideoEndUs.reset();
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

}  // namespace android::qmmediaeditor::cli
