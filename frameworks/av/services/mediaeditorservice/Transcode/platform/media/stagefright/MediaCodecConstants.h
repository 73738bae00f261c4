// Values of "profile", "level" and "color-format" in a codec's format.
#pragma once

#include <stdint.h>

namespace android {

constexpr int32_t AVCProfileBaseline = 0x01;
constexpr int32_t AVCProfileMain = 0x02;
constexpr int32_t AVCProfileExtended = 0x04;
constexpr int32_t AVCProfileHigh = 0x08;
constexpr int32_t AVCProfileHigh10 = 0x10;
constexpr int32_t AVCProfileHigh422 = 0x20;
constexpr int32_t AVCProfileHigh444 = 0x40;

constexpr int32_t AVCLevel1 = 0x01;
constexpr int32_t AVCLevel11 = 0x04;
constexpr int32_t AVCLevel12 = 0x08;
constexpr int32_t AVCLevel13 = 0x10;
constexpr int32_t AVCLevel2 = 0x20;
constexpr int32_t AVCLevel21 = 0x40;
constexpr int32_t AVCLevel22 = 0x80;
constexpr int32_t AVCLevel3 = 0x100;
constexpr int32_t AVCLevel31 = 0x200;
constexpr int32_t AVCLevel32 = 0x400;
constexpr int32_t AVCLevel4 = 0x800;
constexpr int32_t AVCLevel41 = 0x1000;
constexpr int32_t AVCLevel42 = 0x2000;
constexpr int32_t AVCLevel5 = 0x4000;
constexpr int32_t AVCLevel51 = 0x8000;
constexpr int32_t AVCLevel52 = 0x10000;

constexpr int32_t COLOR_FormatYUV420Planar = 19;
constexpr int32_t COLOR_FormatYUV420SemiPlanar = 21;
constexpr int32_t COLOR_FormatSurface = 0x7F000789;  // an input surface feeds the encoder

}  // namespace android
