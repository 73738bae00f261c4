// What the output's codecs have a form for.
#pragma once

#include <qmtranscode/cli/Options.h>
#include <stdint.h>

#include <string>

namespace android::qmmediaeditor::cli {

constexpr int32_t kMostAacChannels = 8;

// The nearest sample rate that AAC has (ISO/IEC 14496-3, table 1.18).
int32_t aacSampleRate(int32_t sampleRate);

// AMR has this one sample rate, and one channel.
int32_t amrSampleRate(AudioCodec codec);
// The highest of its bit rates.
int32_t amrBitrate(AudioCodec codec);

// Whether the codec has pictures of this size: the five of ITU-T H.263, table 5, or what fits into
// the 13 bits of ISO/IEC 14496-2.
bool hasSize(VideoCodec codec, const Size& size);
// "H.263 has only 128x96, …": what hasSize() looks for.
std::string sizesOf(VideoCodec codec);

}  // namespace android::qmmediaeditor::cli
