// Result codes: each code once, with its meaning.
//
// The platform's codes that pass through the component are in <utils/Errors.h> and
// <media/stagefright/MediaErrors.h>: -11 (-EAGAIN, nothing yet), -22 (BAD_VALUE, a sample without
// its bytes), -1011 (ERROR_END_OF_STREAM), -1012 (INFO_FORMAT_CHANGED) and -1014
// (INFO_OUTPUT_BUFFERS_CHANGED).
#pragma once

#include <stdint.h>

namespace android {
namespace qmmediaeditor {

enum : int32_t {
    // Results of a session. The first reason why a run ends is its result.
    kNoThread = -12,         // a thread could not be created
    kInvalidRequest = -38,   // the request or its input cannot be used
    kStopped = -1003,        // by cancel() or by the writer
    kReadError = -1004,      // the input could not be read
    kDecoderError = -1007,   // a decoder refused an input
    kSessionFailed = -1010,  // extractor, source or writer failed
    kEncoderError = -1130,   // an encoder could not be created or failed, or a sample could not be
                             // copied or converted

    // Between the operations of the component; process() returns none of them.
    kNoResource = -1001,        // a source or a conversion buffer could not be made
    kNoDecodedData = -1018,     // an input port was woken with nothing queued
    kSourceNotEnabled = -1100,  // a source has no encoder, buffer pool or converter
};

}  // namespace qmmediaeditor
}  // namespace android
