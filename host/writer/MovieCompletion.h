// The movie box of a finished 3GP file, with what players need beyond what libavformat writes.
#pragma once

#include "host/io/DescriptorFile.h"

namespace android {
namespace qmmediaeditor {

// Rewrites the movie box of a file that is open for writing and readable, on one thread:
// - The box of AMR-WB gets its type 'damr', and that of H.263 its level (3GPP TS 26.244, 6.5, 6.8).
// - Video gets the box 'colr' (ISO/IEC 14496-12, 12.1.5) for BT.709 in limited range. H.263 has no
//   tags of its own, and players take small frames for BT.601.
// - AMR gets a table of sample sizes, because VLC takes a track of constant sizes for PCM and
//   decodes only the first packet of each chunk.
// Media data behind the movie box moves. A movie box with an unexpected layout stays as it is. OK,
// or the error of the file.
status_t completeMovie(DescriptorFile* file, int h263Level);

}  // namespace qmmediaeditor
}  // namespace android
