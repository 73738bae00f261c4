// What the output's codecs have a form for.
#pragma once

#include <qmtranscode/Options.h>
#include <stdint.h>

namespace android::qmmediaeditor::cli {

constexpr int32_t kMostAacChannels = 8;

// The nearest sample rate that AAC has (ISO/IEC 14496-3, table 1.18).
int32_t aacSampleRate(int32_t sampleRate);

// AMR has this one sample rate, and one channel.
int32_t amrSampleRate(AudioCodec codec);
// The highest of its bit rates.
int32_t amrBitrate(AudioCodec codec);

// ITU-T H.263, table 5.
bool isH263Size(const Size& size);
constexpr const char* kH263Sizes = "128x96, 176x144, 352x288, 704x576 and 1408x1152";

}  // namespace android::qmmediaeditor::cli
