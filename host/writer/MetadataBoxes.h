// The boxes that hold the metadata of a recording. Private to the writer; no media library.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "host/codec/RecordingMetadata.h"

namespace android {
namespace qmmediaeditor {

// The boxes 'udta' and 'meta' of a movie. Different programs read different ones, so that most
// fields are written twice:
// - 'udta': QuickTime's texts (©mak, ©mod, ©xyz), in 3GP files 'titl', and a 'meta' with the list
//   of title, date and `encoder`, which is the library that wrote the file;
// - 'meta' with keys: Apple's (com.apple.quicktime.make), and Android's where the input has them.
// The creation time is in the headers of movie and tracks instead, and not among these boxes.
//
// Empty when no field needs them.
std::vector<uint8_t> makeMetadataBoxes(const RecordingMetadata& metadata, bool is3gp,
                                       const std::string& encoder);

}  // namespace qmmediaeditor
}  // namespace android
