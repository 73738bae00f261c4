#include "host/codec/InputLimits.h"

#include <stdlib.h>

#include <algorithm>
#include <atomic>

#include "host/Host.h"

extern "C" {
#include <libavutil/mem.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

// Written once by limitAllocations(), read by any thread.
std::atomic<bool> gLimitsAllocations{false};

std::string sizeText(int64_t width, int64_t height) {
    return std::to_string(width) + "x" + std::to_string(height);
}

std::string secondsText(int64_t timeUs) { return std::to_string(timeUs / 1000000) + " s"; }

}  // namespace

void limitAllocations() {
    av_max_alloc(static_cast<size_t>(kMaxAllocationBytes));
    gLimitsAllocations = true;
}

std::optional<std::string> checkSize(const char* what, int64_t width, int64_t height) {
    const bool fits = width <= kMaxSide && height <= kMaxSide && width * height <= kMaxPixels;
    if (fits) return std::nullopt;
    return std::string(what) + " of " + sizeText(width, height) + " exceeds the limit of " +
           sizeText(kMaxSide, kMaxSide) + " and " + std::to_string(kMaxPixels) + " pixels";
}

std::optional<std::string> checkStreams(unsigned count) {
    if (count <= kMaxStreams) return std::nullopt;
    return std::to_string(count) + " streams exceed the limit of " + std::to_string(kMaxStreams);
}

std::optional<std::string> checkAudio(int sampleRate, int channels) {
    if (sampleRate <= kMaxSampleRate && channels <= kMaxChannels) return std::nullopt;
    return "audio of " + std::to_string(sampleRate) + " Hz and " + std::to_string(channels) +
           " channels exceeds the limit of " + std::to_string(kMaxSampleRate) + " Hz and " +
           std::to_string(kMaxChannels) + " channels";
}

std::optional<std::string> checkAllocation() {
    if (!gLimitsAllocations) return std::nullopt;
    // Volatile, because the compiler may leave out an allocation that nothing uses.
    void* volatile memory = malloc(static_cast<size_t>(kMaxAllocationBytes));
    const bool isShort = memory == nullptr;
    free(memory);
    if (isShort) return std::nullopt;
    return "an allocation exceeds the limit of " + std::to_string(kMaxAllocationBytes >> 20) +
           " MiB";
}

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
               " in the audio exceeds the limit of " + secondsText(kMaxGapUs);
    }
    const bool hasVideo = videoUs != INT64_MIN;
    const int64_t uncoveredUs =
        hasVideo ? std::max(startUs, videoUs + kMaxFrameDistanceUs) : startUs;
    mSilenceUs += std::max<int64_t>(endUs - uncoveredUs, 0);
    const int64_t maxSilenceUs = 2 * mAudioUs + kMaxGapUs;
    if (mSilenceUs <= maxSilenceUs) return std::nullopt;
    return "gaps of " + secondsText(mSilenceUs) + " in the audio exceed the limit of " +
           secondsText(maxSilenceUs) + ", which is twice the audio's duration plus " +
           secondsText(kMaxGapUs);
}

}  // namespace qmmediaeditor
}  // namespace android
