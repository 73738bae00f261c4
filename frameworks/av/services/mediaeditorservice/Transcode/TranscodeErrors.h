// Result codes of a session.
#pragma once

#include <stdint.h>

namespace android {
namespace qmmediaeditor {

// Of process() and of the operations below it, beside those of <media/stagefright/MediaErrors.h>.
// The first reason why a run ends is its result.
enum : int32_t {
    kNoThread = -12,         // a thread could not be created
    kInvalidRequest = -38,   // the request or its input cannot be used
    kNoSource = -1001,       // a source could not be made
    kStopped = -1003,        // by cancel() or by the writer
    kReadError = -1004,      // the input could not be read
    kDecoderError = -1007,   // a decoder refused an input
    kSessionFailed = -1010,  // extractor, source or writer failed
    kEncoderError = -1130,   // an encoder could not be had, or failed
};

}  // namespace qmmediaeditor
}  // namespace android
