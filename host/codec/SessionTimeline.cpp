#include "host/codec/SessionTimeline.h"

#include <algorithm>
#include <limits>

namespace android {
namespace qmmediaeditor {

SessionTimeline::SessionTimeline(const HostOptions& options)
    : mObserver(options.observer), mIsPart(options.isPart), mMetadata(options.metadata) {
    if (!options.cutTimesUs) return;
    const std::vector<int64_t>& cutsUs = *options.cutTimesUs;
    int64_t outputUs = 0;
    for (size_t i = 0; i + 1 < cutsUs.size(); i += 2) {
        mPeriods.push_back({cutsUs[i], cutsUs[i + 1], outputUs, {}, {}});
        outputUs += cutsUs[i + 1] - cutsUs[i];
    }
    if (cutsUs.empty()) mPeriods.push_back({0, std::numeric_limits<int64_t>::max(), 0, {}, {}});
}

void SessionTimeline::setFrameRate(const FrameRate& rate) {
    Mutex::Autolock lock(mLock);
    mFrameRate = rate;
}

std::optional<FrameRate> SessionTimeline::frameRate() const {
    Mutex::Autolock lock(mLock);
    return mFrameRate;
}

void SessionTimeline::setAverageFrameRate(double rate) {
    Mutex::Autolock lock(mLock);
    mAverageFrameRate = rate;
}

double SessionTimeline::averageFrameRate() const {
    Mutex::Autolock lock(mLock);
    return mAverageFrameRate;
}

bool SessionTimeline::isCut(int64_t timeUs) const {
    Mutex::Autolock lock(mLock);
    return !mPeriods.empty() &&
           std::none_of(mPeriods.begin(), mPeriods.end(), [timeUs](const Period& period) {
               return period.startUs <= timeUs && timeUs < period.endUs;
           });
}

void SessionTimeline::addFrame(int64_t timeUs, int64_t durationUs) {
    Mutex::Autolock lock(mLock);
    for (Period& period : mPeriods) {
        if (timeUs < period.startUs || timeUs >= period.endUs) continue;
        if (period.frameUs && timeUs < *period.frameUs) return;
        period.frameUs = timeUs;
        period.frameEndUs.reset();
        if (durationUs > 0) period.frameEndUs = timeUs + durationUs;
        return;
    }
}

bool SessionTimeline::keeps(int64_t timeUs) const {
    Mutex::Autolock lock(mLock);
    return mPeriods.empty() ||
           std::any_of(mPeriods.begin(), mPeriods.end(), [timeUs](const Period& period) {
               return timeUs >= period.startUs && timeUs < period.endUs;
           });
}

void SessionTimeline::endVideo(int64_t continuesAtUs, std::optional<int64_t> endUs) {
    Mutex::Autolock lock(mLock);
    mContinuesAtUs = continuesAtUs;
    mVideoEndUs = endUs;
}

std::optional<int64_t> SessionTimeline::videoEndUs(int64_t outputTimeUs) const {
    Mutex::Autolock lock(mLock);
    for (auto period = mPeriods.rbegin(); period != mPeriods.rend(); ++period) {
        if (outputTimeUs < period->outputUs) continue;
        if (!period->frameUs) return std::nullopt;
        std::optional<int64_t> endUs = period->frameEndUs;
        // A frame is shown until the next one, or until its track ends.
        if (mVideoEndUs && *mVideoEndUs > *period->frameUs) endUs = mVideoEndUs;
        if (mContinuesAtUs >= period->endUs) endUs = period->endUs;
        if (!endUs) return std::nullopt;
        return std::min(*endUs, period->endUs) - period->startUs + period->outputUs;
    }
    return std::nullopt;
}

void SessionTimeline::endAudio(int64_t endUs) {
    Mutex::Autolock lock(mLock);
    mAudioEndUs = endUs;
}

std::optional<int64_t> SessionTimeline::audioEndUs() const {
    Mutex::Autolock lock(mLock);
    return mAudioEndUs;
}

void SessionTimeline::encoderStarted(bool isVideo) {
    Mutex::Autolock lock(mLock);
    mEncoders[isVideo ? 1 : 0] = Encoder::kStarted;
}

void SessionTimeline::encoderEnded(bool isVideo) {
    Mutex::Autolock lock(mLock);
    mEncoders[isVideo ? 1 : 0] = Encoder::kEnded;
}

bool SessionTimeline::isComplete(bool isVideo) const {
    Mutex::Autolock lock(mLock);
    return mEncoders[isVideo ? 1 : 0] != Encoder::kStarted;
}

void SessionTimeline::reportLoss() {
    Mutex::Autolock lock(mLock);
    mHasLoss = true;
}

bool SessionTimeline::hasLoss() const {
    Mutex::Autolock lock(mLock);
    return mHasLoss;
}

}  // namespace qmmediaeditor
}  // namespace android
