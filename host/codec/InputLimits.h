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

// For a library that has run out of memory: the reason when limitAllocations() was called and
// memory is not short, so that the limit has refused an allocation.
std::optional<std::string> checkAllocation();

}  // namespace qmmediaeditor
}  // namespace android
