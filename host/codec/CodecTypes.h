// Which of FFmpeg's codecs stands behind a MIME type.
#pragma once

#include <media/stagefright/foundation/AString.h>

struct AVCodec;

namespace android {
namespace qmmediaeditor {

// AVCodecID of a decoder for tracks that say no more than their MIME type; 0 (none) when it is
// unknown.
int decoderIdOf(const AString& mime);

// The encoder for a MIME type, or null.
const AVCodec* encoderOf(const AString& mime);

}  // namespace qmmediaeditor
}  // namespace android
