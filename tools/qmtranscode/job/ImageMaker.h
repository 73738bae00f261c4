// Draws the posters and the contact sheet of an output.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <vector>

namespace android::qmmediaeditor::cli {

// The frames of a period, by their numbers in the output. Empty where both are equal.
struct FrameSpan {
    size_t first;
    size_t end;
};

// JPEG files: with `posters` the first frame of each span, empty for an empty span; with `sheet`
// then the contact sheet, unless there is no frame at all. The sheet has a pair of images for
// each cut, the last frame before it and the first one behind it; for a single span, its first and
// its last frame. Nothing when a frame cannot be decoded or encoded. `fd` is the output's;
// `rotation` is in degrees clockwise.
std::optional<std::vector<std::vector<uint8_t>>> drawImages(int fd, int rotation,
                                                            const std::vector<FrameSpan>& spans,
                                                            bool posters, bool sheet);

}  // namespace android::qmmediaeditor::cli
