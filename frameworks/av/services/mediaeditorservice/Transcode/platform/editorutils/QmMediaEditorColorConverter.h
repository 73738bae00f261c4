// Crops, scales and converts frames.
#pragma once

#include <editorutils/QmMediaEditorColorUtils.h>

namespace android {
namespace qmmediaeditor {

class QmMediaEditorColorConverter {
public:
    // Crops the visible `srcWidth` x `srcHeight` pixels out of the top left of a frame whose luma
    // rows are `srcStride` bytes apart and whose planes are `srcSliceHeight` rows high, scales them
    // to `dstWidth` x `dstHeight` and writes them, tightly packed, to `dst`. Colour formats: 19 (Y,
    // U, V planes) and 21 (Y plane, interleaved UV plane), both 4:2:0. `utils` may be null. Any
    // thread.
    static void Scale(int srcStride, int srcSliceHeight, int srcWidth, int srcHeight,
                      int srcColorFormat, unsigned char* src, int dstWidth, int dstHeight,
                      int dstColorFormat, unsigned char* dst,
                      const sp<QmMediaEditorColorUtils>& utils);
};

}  // namespace qmmediaeditor
}  // namespace android
