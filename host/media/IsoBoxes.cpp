#include "host/media/IsoBoxes.h"

#include <algorithm>
#include <initializer_list>

extern "C" {
#include <libavutil/mathematics.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr uint32_t kMovieHeader = fourCc('m', 'v', 'h', 'd');
constexpr uint32_t kTrackHeader = fourCc('t', 'k', 'h', 'd');
constexpr int64_t kHeaderBytes = 8;
constexpr int64_t kLargeHeaderBytes = 16;
// Bounds the walk over a box that consists of tiny boxes.
constexpr int kMaxChildren = 1000;
constexpr int64_t kTableHeaderBytes = 8;
constexpr int64_t kTimeEntryBytes = 8;
// A variable-rate track has an entry for each frame: ten days at 30 frames per second.
constexpr int64_t kMaxTimeEntries = INT64_C(1) << 24;

std::optional<IsoBox> findChild(const InputFile& file, const IsoBox& parent, uint32_t type) {
    int64_t offset = parent.payloadOffset;
    for (int i = 0; i < kMaxChildren; ++i) {
        const std::optional<IsoBox> child = readBox(file, offset, parent.endOffset);
        if (!child || child->type == type) return child;
        offset = child->endOffset;
    }
    return std::nullopt;
}

std::optional<IsoBox> findPath(const InputFile& file, const IsoBox& parent,
                               std::initializer_list<uint32_t> types) {
    std::optional<IsoBox> box = parent;
    for (const uint32_t type : types) {
        if (box) box = findChild(file, *box, type);
    }
    return box;
}

// A movie header or a track header: two times, a field of 32 bits (the timescale or the track's
// number), in a track header 32 reserved bits, and the duration. Version 1 has times and durations
// of 64 bits.
struct Header {
    uint32_t field = 0;
    int64_t duration = 0;
};

std::optional<Header> readHeader(const InputFile& file, const std::optional<IsoBox>& box) {
    uint8_t data[36];
    if (!box || box->endOffset - box->payloadOffset < static_cast<int64_t>(sizeof(data)) ||
        !file.readFully(box->payloadOffset, data, sizeof(data))) {
        return std::nullopt;
    }
    const bool isWide = data[0] == 1;
    const size_t field = isWide ? 20 : 12;
    const size_t duration = field + (box->type == kTrackHeader ? 8 : 4);
    Header header;
    header.field = get32(data + field);
    header.duration = get32(data + duration);
    if (isWide) {
        const uint64_t high = static_cast<uint64_t>(header.duration) << 32;
        header.duration = static_cast<int64_t>(high | get32(data + duration + 4));
    }
    return header;
}

std::optional<IsoTrackLength> readTimes(const InputFile& file, const IsoBox& times) {
    uint8_t header[kTableHeaderBytes];
    if (!file.readFully(times.payloadOffset, header, sizeof(header))) return std::nullopt;
    const int64_t fits =
        (times.endOffset - times.payloadOffset - kTableHeaderBytes) / kTimeEntryBytes;
    const int64_t entries = std::min<int64_t>(get32(header + 4), fits);
    if (entries < 1 || entries > kMaxTimeEntries) return std::nullopt;
    std::vector<uint8_t> data(static_cast<size_t>(entries * kTimeEntryBytes));
    if (!file.readFully(times.payloadOffset + kTableHeaderBytes, data.data(), data.size())) {
        return std::nullopt;
    }
    IsoTrackLength table;
    for (size_t at = 0; at < data.size(); at += kTimeEntryBytes) {
        // More than any file holds, and damaged.
        if (table.durationTicks > INT64_MAX / 2) return std::nullopt;
        table.samples += get32(&data[at]);
        table.durationTicks += static_cast<int64_t>(get32(&data[at])) * get32(&data[at + 4]);
    }
    return table;
}

}  // namespace

// A size of 1 is followed by 64 bits that hold the real one, and 0 means: to the limit.
std::optional<IsoBox> readBox(const InputFile& file, int64_t offset, int64_t limit) {
    uint8_t header[kLargeHeaderBytes];
    if (offset > limit - kHeaderBytes || !file.readFully(offset, header, kHeaderBytes)) {
        return std::nullopt;
    }
    const uint32_t shortSize = get32(header);
    uint64_t size = shortSize;
    int64_t headerBytes = kHeaderBytes;
    if (shortSize == 1) {
        headerBytes = kLargeHeaderBytes;
        if (!file.readFully(offset, header, kLargeHeaderBytes)) return std::nullopt;
        size = static_cast<uint64_t>(get32(header + 8)) << 32 | get32(header + 12);
    } else if (shortSize == 0) {
        size = static_cast<uint64_t>(limit - offset);
    }
    if (size < static_cast<uint64_t>(headerBytes) || size > static_cast<uint64_t>(limit - offset)) {
        return std::nullopt;
    }
    return IsoBox{get32(header + 4), offset, offset + headerBytes,
                  offset + static_cast<int64_t>(size)};
}

std::vector<IsoTrackLength> readTrackLengths(const InputFile& file, int64_t movieOffset) {
    std::vector<IsoTrackLength> lengths;
    const std::optional<IsoBox> movie = readBox(file, movieOffset, file.sizeBytes());
    if (!movie) return lengths;
    const auto movieHeader = readHeader(file, findChild(file, *movie, kMovieHeader));
    if (!movieHeader || movieHeader->field == 0) return lengths;
    int64_t offset = movie->payloadOffset;
    for (int i = 0; i < kMaxChildren; ++i) {
        const std::optional<IsoBox> box = readBox(file, offset, movie->endOffset);
        if (!box) break;
        offset = box->endOffset;
        if (box->type != fourCc('t', 'r', 'a', 'k')) continue;
        const auto header = readHeader(file, findChild(file, *box, kTrackHeader));
        const auto times = findPath(file, *box,
                                    {fourCc('m', 'd', 'i', 'a'), fourCc('m', 'i', 'n', 'f'),
                                     fourCc('s', 't', 'b', 'l'), fourCc('s', 't', 't', 's')});
        if (!header || !times) continue;
        std::optional<IsoTrackLength> length = readTimes(file, *times);
        if (!length) continue;
        length->trackId = header->field;
        length->presentationUs = av_rescale(header->duration, 1000000, movieHeader->field);
        lengths.push_back(*length);
    }
    return lengths;
}

}  // namespace qmmediaeditor
}  // namespace android
