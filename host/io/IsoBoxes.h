// The boxes of ISO base media files (ISO/IEC 14496-12) that are read or written beside libavformat:
// the lengths of tracks, the sizes of sample tables, user data, and the uuid boxes. Any thread.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

#include "host/io/DescriptorFile.h"

namespace android {
namespace qmmediaeditor {

// A big-endian number.
inline uint32_t get32(const uint8_t* data) {
    return static_cast<uint32_t>(data[0]) << 24 | static_cast<uint32_t>(data[1]) << 16 |
           static_cast<uint32_t>(data[2]) << 8 | data[3];
}

constexpr uint32_t fourCc(const char (&type)[5]) {
    return static_cast<uint32_t>(type[0]) << 24 | static_cast<uint32_t>(type[1]) << 16 |
           static_cast<uint32_t>(type[2]) << 8 | static_cast<uint32_t>(type[3]);
}

// Length of a track, by its decoding time table ('stts') and by its header.
struct IsoTrackLength {
    uint32_t trackId = 0;
    int64_t samples = 0;
    int64_t durationTicks = 0;      // of all samples, in ticks of the track's timescale
    int64_t presentationTicks = 0;  // of its edits, in ticks of the movie's timescale
    int64_t movieTicksPerSecond = 0;
};

// One for each track of the movie box that has both.
std::vector<IsoTrackLength> readTrackLengths(const DescriptorFile& file, int64_t movieOffset);

// The reason to refuse a file whose tables ('stsz', 'stz2', 'stts', 'ctts', 'trun') name more
// samples than the file has bytes, because a demuxer makes an index entry for each: a few bytes
// could take any amount of memory. Nothing for a file that is no ISO file, or that cannot be read.
std::optional<std::string> checkSampleTables(const DescriptorFile& file);

// The uuid boxes at the top level (4.2 and 11.1) travel as one buffer, "uuid-data", from the
// extractor to the writer. For one box that is its 16-byte type followed by its payload. For
// several, or for one whose content looks like boxes, it is the complete boxes with their headers.
// Either way the writer puts the same boxes into its file, byte for byte.
struct TopLevelBoxes {
    // The movie box. An ISO file without one holds at most a photograph; its size is then 0.
    int64_t movieOffset = 0;
    int64_t movieBytes = 0;
    // As described above; empty when there is no uuid box.
    std::vector<uint8_t> uuidData;
    // The types, in hexadecimal digits, of the boxes that were left out for their location.
    std::vector<std::string> locatedTypes;
};

// The treatment of uuid boxes whose XMP says where the recording was made ("exif:GPSLatitude").
enum class XmpLocations { kReport, kLeaveOut };

// Goes from box to box by their sizes and reads only the uuid boxes. Ends at the first box that
// does not fit the file, and leaves out uuid boxes beyond 64 MiB in total.
TopLevelBoxes readTopLevelBoxes(const DescriptorFile& file,
                                XmpLocations locations = XmpLocations::kReport);

// The box or boxes that `size` bytes of uuid data stand for, as they go into a file. Empty when
// they are less than a type.
std::vector<uint8_t> makeUuidBoxes(const uint8_t* data, size_t size);

// A box of the movie's user data ('udta', 8.10.1).
struct UserDataBox {
    uint32_t type;
    std::vector<uint8_t> payload;
};

// Those with a payload of at most 4 KiB, in the order of the file.
std::vector<UserDataBox> readUserData(const DescriptorFile& file, int64_t movieOffset);

// Replaces the movie's user data by `boxes` and fills the rest of its place with a free box. The
// user data must be the movie's last box, and have room for `boxes` and 8 bytes, or for exactly
// `boxes`; otherwise BAD_VALUE. The file is open for writing and readable.
status_t replaceUserData(DescriptorFile* file, const std::vector<uint8_t>& boxes);

}  // namespace qmmediaeditor
}  // namespace android
