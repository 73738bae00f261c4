// The colour tags of frames and tracks (ITU-T H.273). FFmpeg passes on what a file states, which
// need not be a value of the enumeration; to read such a value as one is undefined.
#pragma once

#include <string.h>

extern "C" {
#include <libavutil/frame.h>
}

namespace android {
namespace qmmediaeditor {

template <typename Tag>
int tagValue(const Tag& tag) {
    static_assert(sizeof(Tag) == sizeof(int), "FFmpeg's enumerations are as wide as an int");
    int value;
    memcpy(&value, &tag, sizeof(value));
    return value;
}

template <typename Tag>
void replaceUnknown(Tag* tag, Tag end, Tag unspecified) {
    const int value = tagValue(*tag);
    if (value < 0 || value >= end) *tag = unspecified;
}

// Tags that are out of range become "unspecified".
inline void replaceUnknownTags(AVFrame* frame) {
    replaceUnknown(&frame->color_range, AVCOL_RANGE_NB, AVCOL_RANGE_UNSPECIFIED);
    replaceUnknown(&frame->color_primaries, AVCOL_PRI_NB, AVCOL_PRI_UNSPECIFIED);
    replaceUnknown(&frame->color_trc, AVCOL_TRC_NB, AVCOL_TRC_UNSPECIFIED);
    replaceUnknown(&frame->colorspace, AVCOL_SPC_NB, AVCOL_SPC_UNSPECIFIED);
    replaceUnknown(&frame->chroma_location, AVCHROMA_LOC_NB, AVCHROMA_LOC_UNSPECIFIED);
}

}  // namespace qmmediaeditor
}  // namespace android
