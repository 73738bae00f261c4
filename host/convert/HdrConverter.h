// PQ and HLG frames (ITU-R BT.2100) of 10-bit 4:2:0 to the working frame of the same size, row by
// row: to linear light with a table, to the primaries of BT.709, through ToneMapper, to 8-bit
// BT.709 with ordered dither. No whole frame lies between them.
//
// Chroma is interpolated and reduced with the filters that zimg uses for other formats (cubic, a =
// -0.5), so that a frame looks the same whichever way it takes. Arithmetic has the same results on
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
    typedef std::vector<float> Row;
    typedef std::vector<uint16_t> Indexes;

    QM_AVX2 void convertWithAvx2(const FramePlanes& from, const FramePlanes& to);
    void convertRows(const FramePlanes& from, const FramePlanes& to);
    // Sets `to` to a row of chroma at the positions of luma.
    void interpolateChroma(const FramePlane& plane, int row, Row& to);
    // From Y'CbCr to R, G, B of BT.709 in linear light.
    void makeLight(const uint16_t* luma);
    void writeLuma(const FramePlane& to, int row);
    // Takes every second column of a row of luma's width.
    void reduceColumns(Row& differences, Row& to) const;
    void writeChroma(const FramePlane& to, int plane, int row);

    const int mWidth;
    const int mHeight;
    const bool mHlg;
    const bool mFullRange;
    // From a chroma sample of the source to the even luma column and row, in quarters of a chroma
    // sample.
    const int mColumnQuarters;
    const int mRowQuarters;
    Instructions mInstructions = Instructions::kBest;

    std::vector<float> mLight;        // by the code of R', G' or B'; 1.0 is ToneMapper::kWhiteNits
    std::vector<float> mSystemGamma;  // HLG: factor of a pixel, by ToneMapper::indexOf(luminance)
    ToneMapper mToneMapper;

    // Rows that are in work. Those of chroma and differences have kMargin more samples on either
    // side, which mirror those inside.
    Row mChroma;
    Row mInterpolated[2];  // Cb and Cr
    Indexes mIndexes[3];
    Row mLinear[3];
    Row mFactors;
    Indexes mCoded[3];
    Row mDifferences[2];  // B' - Y' and R' - Y'
    // The last rows of differences, reduced to the columns of chroma, by the row modulo kTaps.
    static constexpr int kTaps = 8;
    Row mReduced[2][kTaps];
    std::vector<uint8_t> mOut;
};

}  // namespace qmmediaeditor
}  // namespace android
