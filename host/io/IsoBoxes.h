// The box structure of ISO base media files (ISO/IEC 14496-12), as far as it is needed beside
// libavformat. Any thread.
#pragma once

#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

#include "host/io/DescriptorFile.h"

namespace android {
namespace qmmediaeditor {

constexpr uint32_t fourCc(char a, char b, char c, char d) {
    return static_cast<uint32_t>(a) << 24 | static_cast<uint32_t>(b) << 16 |
           static_cast<uint32_t>(c) << 8 | static_cast<uint32_t>(d);
}

inline uint32_t get32(const uint8_t* data) {
    return static_cast<uint32_t>(data[0]) << 24 | static_cast<uint32_t>(data[1]) << 16 |
           static_cast<uint32_t>(data[2]) << 8 | data[3];
}

// Offsets are bytes of the file.
struct IsoBox {
    uint32_t type = 0;
    int64_t offset = 0;
    int64_t payloadOffset = 0;
    int64_t endOffset = 0;
};

// The box at `offset` of a sequence of boxes that ends at `limit`; nothing when there is none, or
// when it does not fit.
std::optional<IsoBox> readBox(const InputFile& file, int64_t offset, int64_t limit);

// How long a track is, by its decoding time table ('stts') and by its header.
struct IsoTrackLength {
    uint32_t trackId = 0;
    int64_t samples = 0;
    int64_t durationTicks = 0;   // of all samples, in ticks of the track's timescale
    int64_t presentationUs = 0;  // of its edits, rounded to the movie's timescale
};

// One for each track of the movie box that has both.
std::vector<IsoTrackLength> readTrackLengths(const InputFile& file, int64_t movieOffset);

// The reason to refuse a file whose tables ('stsz', 'stz2', 'stts', 'ctts', 'trun') name more
// samples than the file has bytes, because a demuxer makes an index entry for each: a few bytes
// could take any amount of memory. Every file passes that is no ISO file, or that cannot be read.
std::optional<std::string> checkSampleTables(const InputFile& file);

}  // namespace qmmediaeditor
}  // namespace android
