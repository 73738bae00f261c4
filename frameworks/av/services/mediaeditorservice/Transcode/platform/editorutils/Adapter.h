// Operations that differ from device to device.
#pragma once

#include <media/stagefright/MediaWriter.h>

namespace android {
namespace qmmediaeditor {

class Adapter {
public:
    // Has the writer put `size` bytes into a uuid box of its file (ISO/IEC 14496-12: the 16-byte
    // type, then the payload). They are copied.
    static void SetUuidData(const sp<MediaWriter>& writer, const unsigned char* data, int size);

    // True, with a dither type, when HDR content is to be dithered.
    static bool GetUseDitherTypeFromBrunch(int* type);
};

}  // namespace qmmediaeditor
}  // namespace android
