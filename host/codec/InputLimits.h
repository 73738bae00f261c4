// The limits for untrusted input, and the reasons for which an input beyond them is refused. Any
// thread.
#pragma once

#include <stdint.h>
#include <utils/Errors.h>

#include <optional>
#include <string>

namespace android {
namespace qmmediaeditor {

constexpr int kMaxSide = 8192;
constexpr int64_t kMaxPixels = 8192 * 4320;
constexpr unsigned kMaxStreams = 64;
constexpr int kMaxSampleRate = 768000;
constexpr int kMaxChannels = 64;
constexpr int64_t kMaxAllocationBytes = 256 << 20;

// Each gives the reason when the values are beyond the limit.
std::optional<std::string> checkSize(const char* what, int64_t width, int64_t height);
std::optional<std::string> checkStreams(unsigned count);
std::optional<std::string> checkAudio(int sampleRate, int channels);

// Limits each allocation of FFmpeg's libraries to kMaxAllocationBytes, in the whole process.
void limitAllocations();

// For a library that has run out of memory: the reason when limitAllocations() was called and
// memory is not short, so that the limit has refused an allocation.
std::optional<std::string> checkAllocation();

// How much silence may replace missing audio: two short packets with timestamps an hour apart must
// not cost the encoding of an hour.
//
// Silence while video frames continue is not limited. One thread at a time; times are microseconds.
class SilenceBudget {
public:
    static constexpr int64_t kMaxGapUs = INT64_C(600000000);
    // Frames that are further apart than this do not continue.
    static constexpr int64_t kMaxFrameDistanceUs = INT64_C(60000000);

    // Decoded audio raises the limit and ends a gap.
    void addAudio(int64_t durationUs);
    // The next silence belongs to another segment of the input.
    void beginSegment() { mGapStartUs.reset(); }

    // Silence from `startUs` to `endUs` is due. `videoUs` is the time of the last video frame
    // before its end, INT64_MIN without one. The reason when it exceeds the budget.
    std::optional<std::string> addSilence(int64_t startUs, int64_t endUs, int64_t videoUs);

private:
    int64_t mAudioUs = 0;
    int64_t mSilenceUs = 0;  // without video
    std::optional<int64_t> mGapStartUs;
};

}  // namespace qmmediaeditor
}  // namespace android
