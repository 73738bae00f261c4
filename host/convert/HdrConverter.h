// PQ and HLG frames (ITU-R BT.2100) of 10-bit 4:2:0 to the working frame of the same size, row by
// row: to linear light with a table, to the primaries of BT.709, through ToneMapper, to 8-bit
// BT.709 with ordered dither. No whole frame lies between them.
//
// Chroma is interpolated to luma's positions by the cubic filter that zimg uses for other formats.
// The output's chroma is the mean of the six mapped positions around it, those of its own column
// with twice the weight. A table of the whole mapping, by Y'CbCr, would take as long and be far off
// at the edges of the gamut of BT.709, where the mapping is steep.
//
// Integers or unfused floating-point operations make every step, so that frames are the same on
// every machine. One thread at a time.
#pragma once

#include <stdint.h>

#include <vector>

#include "host/convert/Instructions.h"
#include "host/convert/ToneMapper.h"
#include "host/convert/ZimgGraph.h"

namespace android {
namespace qmmediaeditor {

class HdrConverter {
public:
    // `from` is of 10-bit 4:2:0 with a PQ (SMPTE ST 2084) or HLG (ARIB STD-B67) transfer and the
    // BT.2020 matrix with non-constant luminance. Its width and height are even.
    explicit HdrConverter(const zimg_image_format& from);

    // `from` and `to` need no alignment beyond that of their samples. The output's chroma is sited
    // left.
    void convert(const FramePlanes& from, const FramePlanes& to,
                 Instructions instructions = Instructions::kBest);

private:
    typedef std::vector<int16_t> Offsets;  // in 1/32 of a code
    typedef std::vector<uint16_t> Row;

    QM_AVX512 void convertWithAvx512(const FramePlanes& from, const FramePlanes& to);
    QM_AVX2 void convertWithAvx2(const FramePlanes& from, const FramePlanes& to);
    void convertRows(const FramePlanes& from, const FramePlanes& to);
    // Sets `to` to a row of chroma, less its neutral code, at the positions of luma.
    void interpolateChroma(const FramePlanes& from, int plane, int row, Offsets& to);
    // From a row of luma and the interpolated chroma to R, G, B of BT.709 in linear light.
    void makeLight(const uint16_t* luma);
    void writeLuma(const FramePlane& to, int row);
    // Of the two rows of luma in mCoded.
    void writeChroma(const FramePlanes& to, int row);

    const int mWidth;
    const int mHeight;
    const bool mFullRange;
    // From a chroma sample of the source to the even luma column and row, in quarters of a chroma
    // sample.
    const int mColumnQuarters;
    const int mRowQuarters;
    Instructions mInstructions = Instructions::kBest;
    // Light by the code of R', G' or B' less that of black; 1.0 is ToneMapper::kWhiteNits.
    std::vector<float> mLight;
    const ToneMapper mToneMapper;

    // Rows of the source's chroma, by the row modulo kSources.
    struct Source {
        int row = -1;
        Offsets offsets;
    };
    static constexpr int kSources = 4;
    Source mSource[2][kSources];

    // Rows that are in work, with room for more samples on either side.
    Offsets mColumn;     // chroma at the source's columns
    Offsets mHalves[2];  // at even and odd columns of luma
    Offsets mCb;
    Offsets mCr;
    Row mCodes[3];  // R', G', B' of BT.2020
    std::vector<float> mLinear[3];
    Row mMapped[2][3];    // R', G', B' of BT.709 for an even and an odd row
    Row mMeans[3];        // of the two
    Row mColumnMeans[3];  // at the columns of the output's chroma
    Row mDither[3];
};

}  // namespace qmmediaeditor
}  // namespace android
