// The containers and codecs of the output: their names on the command line, and what each supports.
#pragma once

#include <host/codec/OutputLimits.h>
#include <stdint.h>

#include <string>
#include <utility>
#include <vector>

namespace android::qmmediaeditor::cli {

// The values are those of the output-format message.
enum class FileFormat : int32_t { k3gp = 1, kMp4 = 2 };
enum class VideoCodec : int32_t { kAvc = 2, kH263 = 1, kMpeg4 = 3 };
enum class AudioCodec : int32_t { kAac = 3, kAmrNb = 1, kAmrWb = 2 };

// The names that an option accepts, each with its value.
template <typename T>
using Choices = std::vector<std::pair<std::string, T>>;

const Choices<FileFormat>& fileFormats();
const Choices<VideoCodec>& videoCodecs();
const Choices<AudioCodec>& audioCodecs();

struct Size {
    int32_t width;
    int32_t height;
};

// The smallest width and height of an output.
constexpr int32_t kMinSide = 2;
// In frames per second.
constexpr int32_t kMaxFrameRate = 240;
constexpr int32_t kMaxAacChannels = kAacMaxChannels;
constexpr int32_t kMaxAacSampleRate = kAacSampleRates[0];

// Constant quality of AVC where nothing else is asked for, in x264's CRF.
constexpr int32_t kDefaultQuality = 23;

// How many times the bits of a video codec AVC needs for the same structural similarity; 1 for
// codecs that need no fewer bits than AVC. `mime` is the platform's type.
double avcBitsFactor(const std::string& mime);

// The nearest sample rate that AAC supports.
int32_t nearestAacSampleRate(int32_t sampleRate);

// The only sample rate of an AMR codec, which is mono.
int32_t amrSampleRate(AudioCodec codec);
// The highest bit rate of an AMR codec.
int32_t amrBitrate(AudioCodec codec);

// Whether the codec supports this frame size: one of the five of ITU-T H.263, table 5, or what the
// 13-bit fields of ISO/IEC 14496-2 can hold.
bool supportsSize(VideoCodec codec, const Size& size);
// The largest frame size of the same aspect ratio inside the box, with even sides; never larger
// than `shape`.
Size fitInto(const Size& box, const Size& shape);
// The largest frame size that the codec supports and that is not larger than `size`; for H.263,
// which has only five, this changes the aspect ratio.
Size nearestSize(VideoCodec codec, const Size& size);
// "H.263 supports only …": the sizes for which supportsSize() is true.
std::string supportedSizesText(VideoCodec codec);

}  // namespace android::qmmediaeditor::cli
