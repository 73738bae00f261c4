// Still images of the frames of a finished output, as JPEG (ISO/IEC 10918-1, in JFIF). Private to
// the host and the command.
#pragma once

#include <host/Host.h>
#include <stddef.h>
#include <stdint.h>

#include <array>
#include <memory>
#include <optional>
#include <vector>

namespace android {
namespace qmmediaeditor {

// Planar 4:2:0 as JFIF has it: full range, by the matrix of BT.601. Even sizes, no padding.
struct Image {
    FrameSize size;
    std::array<std::vector<uint8_t>, 3> planes;

    explicit Image(FrameSize area);
    // Copies all of `other` to an even position; it must fit.
    void paste(const Image& other, int left, int top);
};

// Decodes chosen frames of the first video track. One thread at a time.
class ImageReader {
public:
    // Frames are turned by `rotation`, degrees clockwise in quarter turns. Null when the file
    // cannot be read. `fd` may be closed afterwards.
    static std::unique_ptr<ImageReader> open(int fd, int rotation);
    virtual ~ImageReader() = default;

    // The frame with this number, counted from 0 in the order of presentation, scaled to fit into
    // the box without being enlarged. Fastest with rising numbers. Nothing when it cannot be
    // decoded.
    virtual std::optional<Image> read(size_t frame, FrameSize box) = 0;
};

// A file; empty when it cannot be encoded.
std::vector<uint8_t> encodeJpeg(const Image& image);

}  // namespace qmmediaeditor
}  // namespace android
