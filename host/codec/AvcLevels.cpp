#include "host/codec/AvcLevels.h"

#include <cmath>

namespace android {
namespace qmmediaeditor {

namespace {

struct Level {
    int32_t bit;
    int idc;
    int64_t maxMacroblocksPerSecond;
    int64_t maxMacroblocks;
    int64_t maxBitRate;  // bits a second, Baseline and Main profile
};

constexpr Level kLevels[] = {
    {1, 10, 1485, 99, 64000},
    {4, 11, 3000, 396, 192000},
    {8, 12, 6000, 396, 384000},
    {16, 13, 11880, 396, 768000},
    {32, 20, 11880, 396, 2000000},
    {64, 21, 19800, 792, 4000000},
    {128, 22, 20250, 1620, 4000000},
    {256, 30, 40500, 1620, 10000000},
    {512, 31, 108000, 3600, 14000000},
    {1024, 32, 216000, 5120, 20000000},
    {2048, 40, 245760, 8192, 20000000},
    {4096, 41, 245760, 8192, 50000000},
    {8192, 42, 522240, 8704, 50000000},
    {16384, 50, 589824, 22080, 135000000},
    {32768, 51, 983040, 36864, 240000000},
    {65536, 52, 2073600, 36864, 240000000},
};

bool holds(const Level& level, const AvcDemand& demand) {
    const int64_t columns = (demand.width + 15) / 16;
    const int64_t rows = (demand.height + 15) / 16;
    const int64_t macroblocks = columns * rows;
    // No side may be longer than eight times the square root of the largest picture.
    const auto longestSide =
        static_cast<int64_t>(std::sqrt(static_cast<double>(level.maxMacroblocks) * 8));
    return macroblocks <= level.maxMacroblocks && columns <= longestSide && rows <= longestSide &&
           static_cast<double>(macroblocks) * demand.frameRate <=
               static_cast<double>(level.maxMacroblocksPerSecond) &&
           demand.maxBitRate <= level.maxBitRate;
}

}  // namespace

const char* avcProfileName(int32_t profileBit) {
    switch (profileBit) {
        case 1:
            return "baseline";
        case 2:
            return "main";
        case 8:
            return "high";
        default:
            return nullptr;
    }
}

int avcLevelFor(int32_t levelBit, const AvcDemand& demand) {
    for (const Level& level : kLevels) {
        if (level.bit == levelBit) return holds(level, demand) ? level.idc : 0;
    }
    return 0;
}

}  // namespace qmmediaeditor
}  // namespace android
