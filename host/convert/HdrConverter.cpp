#include "host/convert/HdrConverter.h"

#include <string.h>

#include <algorithm>
#include <cmath>

namespace android {
namespace qmmediaeditor {

namespace {

// Codes of R', G' and B' per unit, in the table of light. Values up to 1.25 occur in signals that
// exceed the nominal range.
constexpr float kLightSteps = 16384;
constexpr float kMaxLightIndex = 1.25f * kLightSteps - 1;
// Samples on either side of a row that filters read.
constexpr int kMargin = 4;
// Blocks of columns in which the dither repeats; rows have room for a whole number of them.
constexpr int kBlock = 16;

// ITU-R BT.2020 and BT.709: parts of red, green and blue in luma.
constexpr float kWideRed = 0.2627f;
constexpr float kWideGreen = 0.6780f;
constexpr float kWideBlue = 0.0593f;
constexpr float kRed = 0.2126f;
constexpr float kGreen = 0.7152f;
constexpr float kBlue = 0.0722f;
// Linear light of BT.2020 primaries to that of BT.709 (ITU-R BT.2087).
constexpr float kToBt709[3][3] = {{1.6604910f, -0.5876411f, -0.0728499f},
                                  {-0.1245505f, 1.1328999f, -0.0083494f},
                                  {-0.0181508f, -0.1005789f, 1.1187297f}};

// SMPTE ST 2084; 1.0 is 10000 nits.
double lightOfPq(double code) {
    const double root = std::pow(code, 32.0 / 2523);
    const double light = std::max(root - 3424.0 / 4096, 0.0) / (2413.0 / 128 - 2392.0 / 128 * root);
    return std::pow(light, 16384.0 / 2610);
}

// ITU-R BT.2100: light of the scene.
double lightOfHlg(double code) {
    if (code <= 0.5) return code * code / 3;
    return (std::exp((code - 0.55991073) / 0.17883277) + 0.28466892) / 12;
}
constexpr double kHlgPeakNits = 1000;
constexpr double kHlgGamma = 1.2;

// Weights of four samples for a position that is some quarters of a sample beyond one of them. The
// first weight is that of the sample `first` away from it.
struct CubicFilter {
    int first;
    float weights[4];

    explicit CubicFilter(int quarters) : first(quarters < 0 ? -2 : -1) {
        static constexpr float kWeights[4][4] = {{0, 128, 0, 0},
                                                 {-9, 111, 29, -3},
                                                 {-8, 72, 72, -8},
                                                 {-3, 29, 111, -9}};
        const float* of = kWeights[quarters & 3];
        for (int i = 0; i < 4; ++i) weights[i] = of[i] / 128;
    }
};

// The row or column that stands for one beyond the edges of a plane.
int mirrored(int at, int size) {
    if (at < 0) at = -1 - at;
    if (at >= size) at = 2 * size - 1 - at;
    return std::min(std::max(at, 0), size - 1);
}

void fillMargins(float* row, int width) {
    for (int i = 1; i <= kMargin; ++i) {
        row[-i] = row[mirrored(-i, width)];
        row[width - 1 + i] = row[mirrored(width - 1 + i, width)];
    }
}

const uint16_t* samplesOf(const FramePlane& plane, int row) {
    const void* samples = plane.data + row * plane.stride;
    return static_cast<const uint16_t*>(samples);
}

// What is added to 1/256 of a code before the fraction is dropped: a Bayer matrix of 16 x 16. The
// planes get different ones, so that their errors do not coincide.
struct DitherRow {
    float at[kBlock];

    DitherRow(int plane, int row) {
        const int y = plane == 2 ? 15 - row % 16 : row % 16;
        for (int i = 0; i < kBlock; ++i) {
            const int x = plane == 1 ? 15 - i : i;
            int value = 0;
            for (int bit = 0; bit < 4; ++bit) {
                const int column = (x >> bit) & 1;
                value |= (column | (column ^ ((y >> bit) & 1)) << 1) << (6 - 2 * bit);
            }
            at[i] = static_cast<float>(value);
        }
    }
};

int quartersOfColumn(zimg_chroma_location_e location) {
    const bool centered = location == ZIMG_CHROMA_CENTER || location == ZIMG_CHROMA_TOP ||
                          location == ZIMG_CHROMA_BOTTOM;
    return centered ? -1 : 0;
}

int quartersOfRow(zimg_chroma_location_e location) {
    if (location == ZIMG_CHROMA_TOP || location == ZIMG_CHROMA_TOP_LEFT) return 0;
    return location == ZIMG_CHROMA_BOTTOM || location == ZIMG_CHROMA_BOTTOM_LEFT ? -2 : -1;
}

size_t roomFor(int samples) {
    return static_cast<size_t>((samples + kBlock - 1) / kBlock * kBlock + 2 * kMargin);
}

}  // namespace

HdrConverter::HdrConverter(const zimg_image_format& from)
    : mWidth(static_cast<int>(from.width)),
      mHeight(static_cast<int>(from.height)),
      mHlg(from.transfer_characteristics == ZIMG_TRANSFER_ARIB_B67),
      mFullRange(from.pixel_range == ZIMG_RANGE_FULL),
      mColumnQuarters(quartersOfColumn(from.chroma_location)),
      mRowQuarters(quartersOfRow(from.chroma_location)),
      mLight(static_cast<size_t>(kMaxLightIndex) + 1) {
    for (size_t i = 0; i < mLight.size(); ++i) {
        const double code = static_cast<double>(i) / static_cast<double>(kLightSteps);
        const double nits = mHlg ? std::pow(lightOfHlg(code), 1.2) * kHlgPeakNits : lightOfPq(std::min(code, 1.0)) * 10000;
        mLight[i] = static_cast<float>(nits / ToneMapper::kWhiteNits);
    }
    if (mHlg) {
        // Light of the scene relative to its peak, not to white.
        mSystemGamma.resize(ToneMapper::kEntries);
        for (size_t i = 0; i < mSystemGamma.size(); ++i) {
            const double scene = ToneMapper::lightAt(i) * ToneMapper::kWhiteNits / kHlgPeakNits;
            mSystemGamma[i] = static_cast<float>(std::pow(scene, kHlgGamma - 1));
        }
    }
    const size_t width = roomFor(mWidth);
    for (Row* row : {&mChroma, &mFactors, &mInterpolated[0], &mInterpolated[1], &mDifferences[0],
                     &mDifferences[1], &mLinear[0], &mLinear[1], &mLinear[2]}) {
        row->resize(width);
    }
    for (int i = 0; i < 3; ++i) {
        mIndexes[i].resize(width);
        mCoded[i].resize(width);
    }
    for (auto& plane : mReduced) {
        for (Row& row : plane) row.resize(roomFor(mWidth / 2));
    }
    mOut.resize(width);
}

void HdrConverter::convert(const FramePlanes& from, const FramePlanes& to,
                           Instructions instructions) {
    mInstructions = instructions;
    if (shouldUseAvx2(instructions)) return convertWithAvx2(from, to);
    convertRows(from, to);
}

void HdrConverter::convertWithAvx2(const FramePlanes& from, const FramePlanes& to) {
    convertRows(from, to);
}

QM_INLINED void HdrConverter::convertRows(const FramePlanes& from, const FramePlanes& to) {
    // A row of chroma is made from kTaps rows, of which half come after its first row of luma.
    constexpr int kLag = kTaps / 2;
    for (int row = 0; row < mHeight + kLag; ++row) {
        if (row < mHeight) {
            interpolateChroma(from.plane[1], row, mInterpolated[0]);
            interpolateChroma(from.plane[2], row, mInterpolated[1]);
            makeLight(samplesOf(from.plane[0], row));
            const float* const linear[3] = {mLinear[0].data(), mLinear[1].data(),
                                            mLinear[2].data()};
            uint16_t* const coded[3] = {mCoded[0].data(), mCoded[1].data(), mCoded[2].data()};
            mToneMapper.mapRow(linear, mWidth, coded, mInstructions);
            writeLuma(to.plane[0], row);
            for (int i = 0; i < 2; ++i) {
                reduceColumns(mDifferences[i], mReduced[i][row % kTaps]);
            }
        }
        if (row >= kLag && row % 2 == 0) {
            writeChroma(to.plane[1], 1, (row - kLag) / 2);
            writeChroma(to.plane[2], 2, (row - kLag) / 2);
        }
    }
}

QM_INLINED void HdrConverter::interpolateChroma(const FramePlane& plane, int row, Row& to) {
    const int columns = mWidth / 2;
    const CubicFilter down(mRowQuarters + row % 2 * 2);
    const uint16_t* rows[4];
    for (int i = 0; i < 4; ++i) {
        rows[i] = samplesOf(plane, mirrored(row / 2 + down.first + i, mHeight / 2));
    }
    float* chroma = mChroma.data() + kMargin;
    for (int x = 0; x < columns; ++x) {
        chroma[x] = down.weights[0] * rows[0][x] + down.weights[1] * rows[1][x] +
                    down.weights[2] * rows[2][x] + down.weights[3] * rows[3][x];
    }
    fillMargins(chroma, columns);
    const CubicFilter even(mColumnQuarters);
    const CubicFilter odd(mColumnQuarters + 2);
    const float* e = chroma + even.first;
    const float* o = chroma + odd.first;
    float* out = to.data();
    for (int x = 0; x < columns; ++x) {
        out[2 * x] = even.weights[0] * e[x] + even.weights[1] * e[x + 1] +
                     even.weights[2] * e[x + 2] + even.weights[3] * e[x + 3];
        out[2 * x + 1] = odd.weights[0] * o[x] + odd.weights[1] * o[x + 1] +
                         odd.weights[2] * o[x + 2] + odd.weights[3] * o[x + 3];
    }
}

QM_INLINED void HdrConverter::makeLight(const uint16_t* luma) {
    const float lumaScale = kLightSteps / (mFullRange ? 1023 : 876);
    const float chromaScale = kLightSteps / (mFullRange ? 1023 : 896);
    const float redByCr = 2 * (1 - kWideRed) * chromaScale;
    const float blueByCb = 2 * (1 - kWideBlue) * chromaScale;
    const float greenByCr = -redByCr * kWideRed / kWideGreen;
    const float greenByCb = -blueByCb * kWideBlue / kWideGreen;
    // Half a step is for rounding.
    const float black = 0.5f - (mFullRange ? 0 : 64 * lumaScale);

    const float* cb = mInterpolated[0].data();
    const float* cr = mInterpolated[1].data();
    uint16_t* indexes[3] = {mIndexes[0].data(), mIndexes[1].data(), mIndexes[2].data()};
    const auto index = [](float value) {
        return static_cast<uint16_t>(
            static_cast<int>(std::min(std::max(value, 0.0f), kMaxLightIndex)));
    };
    for (int x = 0; x < mWidth; ++x) {
        const float y = luma[x] * lumaScale + black;
        const float u = cb[x] - 512;
        const float v = cr[x] - 512;
        indexes[0][x] = index(y + v * redByCr);
        indexes[1][x] = index(y + u * greenByCb + v * greenByCr);
        indexes[2][x] = index(y + u * blueByCb);
    }
    float* linear[3] = {mLinear[0].data(), mLinear[1].data(), mLinear[2].data()};
    for (int i = 0; i < 3; ++i) lookUp(mLight.data(), indexes[i], mWidth, linear[i]);

    float* factors = mFactors.data();
    if (false) {
        for (int x = 0; x < mWidth; ++x) {
            indexes[0][x] = ToneMapper::indexOf(kWideRed * linear[0][x] +
                                                kWideGreen * linear[1][x] +
                                                kWideBlue * linear[2][x]);
        }
        lookUp(mSystemGamma.data(), indexes[0], mWidth, factors);
    } else {
        std::fill(factors, factors + mWidth, 1.0f);
    }
    for (int x = 0; x < mWidth; ++x) {
        const float red = linear[0][x] * factors[x];
        const float green = linear[1][x] * factors[x];
        const float blue = linear[2][x] * factors[x];
        linear[0][x] = kToBt709[0][0] * red + kToBt709[0][1] * green + kToBt709[0][2] * blue;
        linear[1][x] = kToBt709[1][0] * red + kToBt709[1][1] * green + kToBt709[1][2] * blue;
        linear[2][x] = kToBt709[2][0] * red + kToBt709[2][1] * green + kToBt709[2][2] * blue;
    }
}

QM_INLINED void HdrConverter::writeLuma(const FramePlane& to, int row) {
    const uint16_t* red = mCoded[0].data();
    const uint16_t* green = mCoded[1].data();
    const uint16_t* blue = mCoded[2].data();
    float* byBlue = mDifferences[0].data() + kMargin;
    float* byRed = mDifferences[1].data() + kMargin;
    uint8_t* out = mOut.data();
    const DitherRow dither(0, row);
    constexpr float kScale = 219 * 256 / 65535.0f;
    for (int first = 0; first < mWidth; first += kBlock) {
        for (int i = 0; i < kBlock; ++i) {
            const int x = first + i;
            const float y = kRed * red[x] + kGreen * green[x] + kBlue * blue[x];
            out[x] = static_cast<uint8_t>(static_cast<int>(16 * 256 + y * kScale + dither.at[i]) >> 8);
            byBlue[x] = blue[x] - y;
            byRed[x] = red[x] - y;
        }
    }
    memcpy(to.data + row * to.stride, out, static_cast<size_t>(mWidth));
}

QM_INLINED void HdrConverter::reduceColumns(Row& differences, Row& to) const {
    float* from = differences.data() + kMargin;
    float* out = to.data();
    fillMargins(from, mWidth);
    for (int x = 0; x < mWidth / 2; ++x) {
        out[x] = from[2 * x] * (16 / 32.0f) + (from[2 * x - 1] + from[2 * x + 1]) * (9 / 32.0f) -
                 (from[2 * x - 3] + from[2 * x + 3]) * (1 / 32.0f);
    }
}

QM_INLINED void HdrConverter::writeChroma(const FramePlane& to, int plane, int row) {
    constexpr float kWeights[kTaps / 2] = {-3 / 256.0f, -9 / 256.0f, 29 / 256.0f, 111 / 256.0f};
    const float* rows[kTaps];
    for (int i = 0; i < kTaps; ++i) {
        const int at = mirrored(row * 2 - (kTaps / 2 - 1) + i, mHeight);
        rows[i] = mReduced[plane - 1][at % kTaps].data();
    }
    const float scale = 224 * 256 / 65535.0f / (2 * (1 - (plane == 1 ? kBlue : kRed)));
    const DitherRow dither(plane, row);
    uint8_t* out = mOut.data();
    for (int first = 0; first < mWidth / 2; first += kBlock) {
        for (int i = 0; i < kBlock; ++i) {
            const int x = first + i;
            float sum = 0;
            for (int tap = 0; tap < kTaps / 2; ++tap) {
                sum += (rows[tap][x] + rows[kTaps - 1 - tap][x]) * kWeights[tap];
            }
            const float value = std::min(std::max(128 * 256 + sum * scale, 16.0f * 256), 240.0f * 256);
            out[x] = static_cast<uint8_t>(static_cast<int>(value + dither.at[i]) >> 8);
        }
    }
    memcpy(to.data + row * to.stride, out, static_cast<size_t>(mWidth / 2));
}

}  // namespace qmmediaeditor
}  // namespace android
