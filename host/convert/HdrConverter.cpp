#include "host/convert/HdrConverter.h"

#include <string.h>

#include <algorithm>
#include <cmath>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace android {
namespace qmmediaeditor {

namespace {

constexpr int kMaxCode = 1023;
constexpr int kNeutral = 512;
// Steps per code: of an interpolated chroma sample, and of an index in the table of light.
constexpr int kChromaSteps = 32;
constexpr int kLightSteps = 16;
// Codes beyond the nominal range that the table of light covers; from there on it is flat.
constexpr int kHeadroom = 256;
// Samples on either side of a row that filters read.
constexpr int kMargin = 2;

// ITU-R BT.2020 and BT.709: parts of red, green and blue in luma.
constexpr double kWideRed = 0.2627;
constexpr double kWideBlue = 0.0593;
constexpr double kRed = 0.2126;
constexpr double kBlue = 0.0722;
// Linear light of BT.2020 primaries to that of BT.709 (ITU-R BT.2087): parts of the other two
// colours in each. Rows of the matrix add up to 1.
constexpr float kGreenInRed = -0.5876411f;
constexpr float kBlueInRed = -0.0728499f;
constexpr float kRedInGreen = -0.1245505f;
constexpr float kBlueInGreen = -0.0083494f;
constexpr float kRedInBlue = -0.0181508f;
constexpr float kGreenInBlue = -0.1005789f;

// SMPTE ST 2084, in nits.
double lightOfPq(double code) {
    const double root = std::pow(code, 32.0 / 2523);
    const double light = std::max(root - 3424.0 / 4096, 0.0) / (2413.0 / 128 - 2392.0 / 128 * root);
    return std::pow(light, 16384.0 / 2610) * 10000;
}

// ITU-R BT.2100, with a screen of 1000 nits; the system gamma is applied to each component. In
// nits.
double lightOfHlg(double code) {
    const double scene = code <= 0.5
                             ? code * code / 3
                             : (std::exp((code - 0.55991073) / 0.17883277) + 0.28466892) / 12;
    return std::pow(scene, 1.2) * 1000;
}

int16_t i16(int value) { return static_cast<int16_t>(value); }
uint16_t u16(int value) { return static_cast<uint16_t>(value); }

// A factor below 1 in 1/32768.
constexpr int16_t fraction(double value) {
    return static_cast<int16_t>(value * 32768 + (value < 0 ? -0.5 : 0.5));
}

// In the form that compilers know as one vector instruction.
QM_INLINED int16_t times(int16_t value, int16_t factor) {
    return i16((((value * factor) >> 14) + 1) >> 1);
}

QM_INLINED uint16_t mean(uint16_t a, uint16_t b) { return u16((a + b + 1) >> 1); }

// Weights in 1/32768 of four samples, for a position that is -2 to 2 quarters beyond sample 0.
struct CubicFilter {
    const int first;  // the first of the samples
    const bool isCopy;
    int16_t weights[4];

    explicit CubicFilter(int quarters) : first(quarters < 0 ? -2 : -1), isCopy(quarters == 0) {
        // Of 128. No weight is that of a position with a sample, which is copied.
        static constexpr int kWeights[4][4] = {
            {}, {-9, 111, 29, -3}, {-8, 72, 72, -8}, {-3, 29, 111, -9}};
        for (int i = 0; i < 4; ++i) weights[i] = i16(kWeights[quarters & 3][i] * 256);
    }
};

#if defined(__x86_64__)
// Rows have room for the last vector.
QM_AVX2 void weighWithAvx2(const int16_t* const samples[4], const int16_t weights[4], int count,
                           int16_t* to) {
    for (int x = 0; x < count; x += 16) {
        __m256i sum = _mm256_setzero_si256();
        for (int i = 0; i < 4; ++i) {
            const void* from = samples[i] + x;
            const __m256i value = _mm256_loadu_si256(static_cast<const __m256i*>(from));
            sum = _mm256_add_epi16(sum, _mm256_mulhrs_epi16(value, _mm256_set1_epi16(weights[i])));
        }
        void* out = to + x;
        _mm256_storeu_si256(static_cast<__m256i*>(out), sum);
    }
}
#endif

QM_INLINED void weigh(const int16_t* const samples[4], const CubicFilter& filter, int count,
                      int16_t* __restrict to, Instructions instructions) {
    if (filter.isCopy) {
        memcpy(to, samples[1], static_cast<size_t>(count) * sizeof(*to));
        return;
    }
#if defined(__x86_64__)
    // GCC finds the rounding multiplication only in a few of these loops.
    if (shouldUseAvx2(instructions)) return weighWithAvx2(samples, filter.weights, count, to);
#endif
    (void)instructions;
    for (int x = 0; x < count; ++x) {
        to[x] =
            i16(times(samples[0][x], filter.weights[0]) + times(samples[1][x], filter.weights[1]) +
                times(samples[2][x], filter.weights[2]) + times(samples[3][x], filter.weights[3]));
    }
}

QM_INLINED void toOffsets(const uint16_t* samples, int count, int16_t* __restrict to) {
    for (int x = 0; x < count; ++x)
        to[x] = i16(((samples[x] & kMaxCode) - kNeutral) * kChromaSteps);
}

QM_INLINED void interleave(const int16_t* even, const int16_t* odd, int count,
                           int16_t* __restrict to) {
    for (int x = 0; x < count; ++x) {
        to[2 * x] = even[x];
        to[2 * x + 1] = odd[x];
    }
}

QM_INLINED int16_t bounded(int16_t value, int16_t min, int16_t max) {
    const int16_t raised = value < min ? min : value;
    return raised > max ? max : raised;
}

// Indexes in the table of light for R', G', B' that are 1.0 at the code 1023 or, in limited range,
// 876 above black.
constexpr int whiteOf(bool full) { return (full ? kMaxCode : 876) * kLightSteps; }
constexpr int lastIndexOf(bool full) { return whiteOf(full) + kHeadroom * kLightSteps - 1; }

// Y'CbCr of BT.2020 to indexes in the table of light.
template <bool kFullRange>
QM_INLINED void toWideRgb(const uint16_t* luma, const int16_t* cb, const int16_t* cr, int count,
                          uint16_t* __restrict red, uint16_t* __restrict green,
                          uint16_t* __restrict blue) {
    constexpr double kScale = (kFullRange ? 1.0 : 876.0 / 896) * kLightSteps / kChromaSteps;
    constexpr double kRedByCr = 2 * (1 - kWideRed) * kScale;
    constexpr double kBlueByCb = 2 * (1 - kWideBlue) * kScale;
    constexpr double kWideGreen = 1 - kWideRed - kWideBlue;
    constexpr int16_t kMaxOffset = kNeutral * kChromaSteps;
    constexpr int16_t kLast = lastIndexOf(kFullRange);
    for (int x = 0; x < count; ++x) {
        const int16_t y = i16(((luma[x] & kMaxCode) - (kFullRange ? 0 : 64)) * kLightSteps);
        const int16_t u = bounded(cb[x], -kMaxOffset, kMaxOffset);
        const int16_t v = bounded(cr[x], -kMaxOffset, kMaxOffset);
        const int16_t r = i16(y + times(v, fraction(kRedByCr)));
        const int16_t g = i16(y - times(u, fraction(kBlueByCb * kWideBlue / kWideGreen)) -
                              times(v, fraction(kRedByCr * kWideRed / kWideGreen)));
        const int16_t b = i16(y + times(u, fraction(kBlueByCb)));
        red[x] = u16(bounded(r, 0, kLast));
        green[x] = u16(bounded(g, 0, kLast));
        blue[x] = u16(bounded(b, 0, kLast));
    }
}

// By differences, so that grey stays exactly neutral.
QM_INLINED void toBt709(int count, float* __restrict red, float* __restrict green,
                        float* __restrict blue) {
    for (int x = 0; x < count; ++x) {
        const float redToGreen = green[x] - red[x];
        const float greenToBlue = blue[x] - green[x];
        const float blueToRed = red[x] - blue[x];
        red[x] += kGreenInRed * redToGreen - kBlueInRed * blueToRed;
        green[x] += kBlueInGreen * greenToBlue - kRedInGreen * redToGreen;
        blue[x] += kRedInBlue * blueToRed - kGreenInBlue * greenToBlue;
    }
}

struct Weighted {
    const uint16_t* row;
    int weight;
};

// A row of Cb or Cr from its own colour and the other one, both relative to green.
QM_INLINED void writeDifferences(const Weighted& own, const Weighted& other, const uint16_t* green,
                                 const uint16_t* dither, int count, uint8_t* __restrict to) {
    for (int x = 0; x < count; ++x) {
        const int sum =
            own.weight * (own.row[x] - green[x]) - other.weight * (other.row[x] - green[x]);
        to[x] = static_cast<uint8_t>(((sum >> 16) + 128 * 256 + dither[x]) >> 8);
    }
}

// The row or column that stands for one beyond the edges of a plane.
int mirrored(int at, int size) {
    if (at < 0) at = -1 - at;
    if (at >= size) at = 2 * size - 1 - at;
    return std::min(std::max(at, 0), size - 1);
}

template <typename Sample>
void fillMargins(Sample* row, int width) {
    for (int i = 1; i <= kMargin; ++i) {
        row[-i] = row[mirrored(-i, width)];
        row[width - 1 + i] = row[mirrored(width - 1 + i, width)];
    }
}

const uint16_t* samplesOf(const FramePlane& plane, int row) {
    const void* samples = plane.data + row * plane.stride;
    return static_cast<const uint16_t*>(samples);
}

// Sets `to` to what is added to 1/256 of a code before the fraction is dropped: a Bayer matrix of
// 16 x 16. The planes get different ones, so that their errors do not coincide.
void makeDither(int plane, int row, std::vector<uint16_t>& to) {
    const int y = plane == 2 ? 15 - row % 16 : row % 16;
    uint16_t values[16];
    for (int i = 0; i < 16; ++i) {
        const int x = plane == 1 ? 15 - i : i;
        int value = 0;
        for (int bit = 0; bit < 4; ++bit) {
            const int column = (x >> bit) & 1;
            value |= (column | (column ^ ((y >> bit) & 1)) << 1) << (6 - 2 * bit);
        }
        values[i] = u16(value);
    }
    for (size_t x = 0; x + 16 <= to.size(); x += 16) memcpy(&to[x], values, sizeof(values));
}

int quartersOfColumn(zimg_chroma_location_e location) {
    const bool centered = location == ZIMG_CHROMA_CENTER || location == ZIMG_CHROMA_TOP ||
                          location == ZIMG_CHROMA_BOTTOM;
    return centered ? -1 : 0;
}

int quartersOfRow(zimg_chroma_location_e location) {
    if (location == ZIMG_CHROMA_TOP || location == ZIMG_CHROMA_TOP_LEFT) return 0;
    return location == ZIMG_CHROMA_BOTTOM || location == ZIMG_CHROMA_BOTTOM_LEFT ? -2 : -1;
}

}  // namespace

HdrConverter::HdrConverter(const zimg_image_format& from)
    : mWidth(static_cast<int>(from.width)),
      mHeight(static_cast<int>(from.height)),
      mFullRange(from.pixel_range == ZIMG_RANGE_FULL),
      mColumnQuarters(quartersOfColumn(from.chroma_location)),
      mRowQuarters(quartersOfRow(from.chroma_location)) {
    const bool hlg = from.transfer_characteristics == ZIMG_TRANSFER_ARIB_B67;
    const int white = whiteOf(mFullRange);
    mLight.resize(static_cast<size_t>(lastIndexOf(mFullRange)) + 1);
    for (size_t i = 0; i < mLight.size(); ++i) {
        const double code = static_cast<double>(i) / white;
        const double nits = hlg ? lightOfHlg(code) : lightOfPq(std::min(code, 1.0));
        mLight[i] = static_cast<float>(nits / ToneMapper::kWhiteNits);
    }
    // For margins, the last vector, and a whole number of repetitions of the dither.
    const size_t room = static_cast<size_t>(mWidth) + 32;
    for (Offsets* row : {&mColumn, &mHalves[0], &mHalves[1], &mCb, &mCr}) row->resize(room);
    for (auto& plane : mSource) {
        for (Source& source : plane) source.offsets.resize(room);
    }
    for (int i = 0; i < 3; ++i) {
        for (Row* row : {&mCodes[i], &mMapped[0][i], &mMapped[1][i], &mMeans[i], &mColumnMeans[i],
                         &mDither[i]})
            row->resize(room);
        mLinear[i].resize(room);
    }
}

void HdrConverter::convert(const FramePlanes& from, const FramePlanes& to,
                           Instructions instructions) {
    mInstructions = instructions;
    if (shouldUseAvx512(instructions)) return convertWithAvx512(from, to);
    if (shouldUseAvx2(instructions)) return convertWithAvx2(from, to);
    convertRows(from, to);
}

void HdrConverter::convertWithAvx512(const FramePlanes& from, const FramePlanes& to) {
    convertRows(from, to);
}

void HdrConverter::convertWithAvx2(const FramePlanes& from, const FramePlanes& to) {
    convertRows(from, to);
}

QM_INLINED void HdrConverter::convertRows(const FramePlanes& from, const FramePlanes& to) {
    for (auto& plane : mSource) {
        for (Source& source : plane) source.row = -1;
    }
    for (int row = 0; row < mHeight; ++row) {
        interpolateChroma(from, 1, row, mCb);
        interpolateChroma(from, 2, row, mCr);
        makeLight(samplesOf(from.plane[0], row));
        const float* const linear[3] = {mLinear[0].data(), mLinear[1].data(), mLinear[2].data()};
        Row* mapped = mMapped[row % 2];
        uint16_t* const codes[3] = {mapped[0].data(), mapped[1].data(), mapped[2].data()};
        mToneMapper.mapRow(linear, mWidth, codes, mInstructions);
        writeLuma(to.plane[0], row);
        if (row % 2 == 1) writeChroma(to, row / 2);
    }
}

QM_INLINED void HdrConverter::interpolateChroma(const FramePlanes& from, int plane, int row,
                                                Offsets& to) {
    const int columns = mWidth / 2;
    const int rows = mHeight / 2;
    const CubicFilter down(mRowQuarters + row % 2 * 2);
    const int16_t* samples[4];
    for (int i = 0; i < 4; ++i) {
        const int at = mirrored(row / 2 + down.first + i, rows);
        Source& source = mSource[plane - 1][at % kSources];
        if (source.row != at)
            toOffsets(samplesOf(from.plane[plane], at), columns, source.offsets.data());
        source.row = at;
        samples[i] = source.offsets.data();
    }
    int16_t* column = mColumn.data() + kMargin;
    weigh(samples, down, columns, column, mInstructions);
    fillMargins(column, columns);
    for (const int odd : {0, 1}) {
        const CubicFilter across(mColumnQuarters + odd * 2);
        for (int i = 0; i < 4; ++i) samples[i] = column + across.first + i;
        weigh(samples, across, columns, mHalves[odd].data(), mInstructions);
    }
    interleave(mHalves[0].data(), mHalves[1].data(), columns, to.data());
}

QM_INLINED void HdrConverter::makeLight(const uint16_t* luma) {
    uint16_t* codes[3] = {mCodes[0].data(), mCodes[1].data(), mCodes[2].data()};
    if (mFullRange) {
        toWideRgb<true>(luma, mCb.data(), mCr.data(), mWidth, codes[0], codes[1], codes[2]);
    } else {
        toWideRgb<false>(luma, mCb.data(), mCr.data(), mWidth, codes[0], codes[1], codes[2]);
    }
    float* linear[3];
    for (int i = 0; i < 3; ++i) {
        linear[i] = mLinear[i].data();
        lookUp(mLight.data(), codes[i], mWidth, linear[i]);
    }
    toBt709(mWidth, linear[0], linear[1], linear[2]);
}

QM_INLINED void HdrConverter::writeLuma(const FramePlane& to, int row) {
    // Three of 1/256 make up for what the three products lose, so that white is 235.
    constexpr double kWhite = 219 * 256 + 3;
    constexpr auto kRedWeight = static_cast<uint16_t>(kWhite * kRed + 0.5);
    constexpr auto kBlueWeight = static_cast<uint16_t>(kWhite * kBlue + 0.5);
    constexpr auto kGreenWeight = static_cast<uint16_t>(kWhite - kRedWeight - kBlueWeight);
    const auto part = [](uint16_t value, uint16_t weight) {
        return u16(static_cast<int>((static_cast<uint32_t>(value) * weight) >> 16));
    };
    const Row* mapped = mMapped[row % 2];
    const uint16_t* red = mapped[0].data();
    const uint16_t* green = mapped[1].data();
    const uint16_t* blue = mapped[2].data();
    uint8_t* __restrict out = to.data + row * to.stride;
    makeDither(0, row, mDither[0]);
    const uint16_t* dither = mDither[0].data();
    const int width = mWidth;
    for (int x = 0; x < width; ++x) {
        const uint16_t luma = u16(part(red[x], kRedWeight) + part(green[x], kGreenWeight) +
                                  part(blue[x], kBlueWeight) + 16 * 256 + dither[x]);
        out[x] = static_cast<uint8_t>(luma >> 8);
    }
}

// The output's chroma lies between two rows of luma, in even columns.
QM_INLINED void HdrConverter::writeChroma(const FramePlanes& to, int row) {
    for (int i = 0; i < 3; ++i) {
        const uint16_t* upper = mMapped[0][i].data();
        const uint16_t* lower = mMapped[1][i].data();
        uint16_t* means = mMeans[i].data() + kMargin;
        uint16_t* columnMeans = mColumnMeans[i].data();
        for (int x = 0; x < mWidth; ++x) means[x] = mean(upper[x], lower[x]);
        fillMargins(means, mWidth);
        for (int x = 0; x < mWidth / 2; ++x) {
            columnMeans[x] = mean(mean(means[2 * x - 1], means[2 * x + 1]), means[2 * x]);
        }
    }
    // The largest value is half of the range; grey is exactly neutral.
    constexpr int kHalf = 112 * 256;
    constexpr auto kRedInCb = static_cast<int>(kHalf * kRed / (1 - kBlue) + 0.5);
    constexpr auto kBlueInCr = static_cast<int>(kHalf * kBlue / (1 - kRed) + 0.5);
    const uint16_t* red = mColumnMeans[0].data();
    const uint16_t* green = mColumnMeans[1].data();
    const uint16_t* blue = mColumnMeans[2].data();
    for (const int plane : {1, 2}) makeDither(plane, row, mDither[plane]);
    writeDifferences({blue, kHalf}, {red, kRedInCb}, green, mDither[1].data(), mWidth / 2,
                     to.plane[1].data + row * to.plane[1].stride);
    writeDifferences({red, kHalf}, {blue, kBlueInCr}, green, mDither[2].data(), mWidth / 2,
                     to.plane[2].data + row * to.plane[2].stride);
}

}  // namespace qmmediaeditor
}  // namespace android
