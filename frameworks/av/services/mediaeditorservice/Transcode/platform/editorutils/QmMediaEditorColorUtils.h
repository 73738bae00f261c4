// The layout of the frames that the colour converter is to make of HDR input.
#pragma once

#include <media/stagefright/foundation/AMessage.h>
#include <utils/RefBase.h>

namespace android {
namespace qmmediaeditor {

class QmMediaEditorColorUtils : public RefBase {
public:
    // Pixels and rows; the crop rectangle's right and bottom lie inside it.
    void setOutputFormat(const sp<AMessage>& format, int width, int height, int cropLeft,
                         int cropTop, int cropRight, int cropBottom, int stride, int sliceHeight);

    struct Layout {
        sp<AMessage> format;
        int width = 0;
        int height = 0;
        int cropLeft = 0;
        int cropTop = 0;
        int cropRight = 0;
        int cropBottom = 0;
        int stride = 0;
        int sliceHeight = 0;
    };
    const Layout& layout() const { return mLayout; }

private:
    Layout mLayout;
};

}  // namespace qmmediaeditor
}  // namespace android
