#include "host/codec/SilenceBudget.h"

#include <algorithm>

namespace android {
namespace qmmediaeditor {

namespace {

std::string secondsText(int64_t timeUs) { return std::to_string(timeUs / 1000000) + " s"; }

}  // namespace

void SilenceBudget::addAudio(int64_t durationUs) {
    mAudioUs += durationUs;
    mGapStartUs.reset();
}

std::optional<std::string> SilenceBudget::addSilence(int64_t startUs, int64_t endUs,
                                                     int64_t videoUs) {
    if (!mGapStartUs) mGapStartUs = startUs;
    const int64_t gapStartUs = std::max(*mGapStartUs, videoUs);
    if (endUs - gapStartUs > kMaxGapUs) {
        return "a gap of " + secondsText(endUs - gapStartUs) +
               " in its audio exceeds the limit of " + secondsText(kMaxGapUs);
    }
    const bool hasVideo = videoUs != INT64_MIN;
    const int64_t uncoveredUs =
        hasVideo ? std::max(startUs, videoUs + kMaxFrameDistanceUs) : startUs;
    mSilenceUs += std::max<int64_t>(endUs - uncoveredUs, 0);
    const int64_t maxSilenceUs = 2 * mAudioUs + kMaxGapUs;
    if (mSilenceUs <= maxSilenceUs) return std::nullopt;
    return "gaps of " + secondsText(mSilenceUs) + " in its audio exceed the limit of " +
           secondsText(maxSilenceUs) + ", twice the audio that it has plus " +
           secondsText(kMaxGapUs);
}

}  // namespace qmmediaeditor
}  // namespace android
