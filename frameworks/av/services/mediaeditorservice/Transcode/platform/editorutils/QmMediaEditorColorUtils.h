// The layout of the frames that the colour converter is to make of HDR input.
#pragma once

#include <media/stagefright/foundation/AMessage.h>
#include <utils/RefBase.h>

#include <memory>

namespace android {
namespace qmmediaeditor {

class Platform;

// Belongs to the session whose process() makes it.
class QmMediaEditorColorUtils : public RefBase {
public:
    QmMediaEditorColorUtils();

    // Sizes and positions in pixels and rows, `stride` in bytes; the crop rectangle's right and
    // bottom lie inside it.
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
    Platform& platform() const { return *mPlatform; }

private:
    const std::shared_ptr<Platform> mPlatform;
    Layout mLayout;
};

}  // namespace qmmediaeditor
}  // namespace android
