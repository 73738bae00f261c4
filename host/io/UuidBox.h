// The uuid boxes at the top level of an ISO base media file (ISO/IEC 14496-12, 4.2 and 11.1).
//
// Their contents travel as one buffer, "uuid-data", from the extractor to the writer. For one box
// that is its 16-byte type followed by its payload. For several, or for one whose content looks
// like boxes, it is the boxes themselves, complete with headers, one after the other. Either way
// the writer puts the same boxes into its file, byte for byte.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <vector>

namespace android {
namespace qmmediaeditor {

class InputFile;

struct TopLevelBoxes {
    // Where the movie box is. Without one an ISO file holds at most a photograph; then the size is
    // 0.
    int64_t movieOffset = 0;
    int64_t movieBytes = 0;
    // As described above; empty when there is no uuid box.
    std::vector<uint8_t> uuidData;
};

// Walks the boxes by their sizes and reads the uuid boxes alone. Ends at the first box that does
// not fit the file, and leaves out what would exceed 64 MiB.
TopLevelBoxes readTopLevelBoxes(const InputFile& file);

// The box or boxes that `size` bytes of uuid data stand for, as they go into a file. Empty when
// they are less than a type.
std::vector<uint8_t> makeUuidBoxes(const uint8_t* data, size_t size);

}  // namespace qmmediaeditor
}  // namespace android
