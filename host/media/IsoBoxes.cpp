#include "host/media/IsoBoxes.h"

#include <algorithm>

namespace android {
namespace qmmediaeditor {

namespace {

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

// The field stands behind two times of 32 or 64 bits.
std::optional<uint32_t> readTrackId(const InputFile& file, const IsoBox& header) {
    uint8_t version = 0;
    uint8_t id[4];
    if (!file.readFully(header.payloadOffset, &version, 1)) return std::nullopt;
    const int64_t offset = header.payloadOffset + (version == 1 ? 20 : 12);
    if (!file.readFully(offset, id, sizeof(id))) return std::nullopt;
    return get32(id);
}

std::optional<IsoSampleTable> readTimes(const InputFile& file, const IsoBox& times) {
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
    IsoSampleTable table;
    for (size_t at = 0; at < data.size(); at += kTimeEntryBytes) {
        table.samples += get32(&data[at]);
        table.lastDuration = get32(&data[at + 4]);
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

std::vector<IsoSampleTable> readSampleTables(const InputFile& file, int64_t movieOffset) {
    std::vector<IsoSampleTable> tables;
    const std::optional<IsoBox> movie = readBox(file, movieOffset, file.sizeBytes());
    if (!movie) return tables;
    int64_t offset = movie->payloadOffset;
    for (int i = 0; i < kMaxChildren; ++i) {
        const std::optional<IsoBox> box = readBox(file, offset, movie->endOffset);
        if (!box) break;
        offset = box->endOffset;
        if (box->type != fourCc('t', 'r', 'a', 'k')) continue;
        const auto header = findChild(file, *box, fourCc('t', 'k', 'h', 'd'));
        const auto times = findPath(file, *box,
                                    {fourCc('m', 'd', 'i', 'a'), fourCc('m', 'i', 'n', 'f'),
                                     fourCc('s', 't', 'b', 'l'), fourCc('s', 't', 't', 's')});
        if (!header || !times) continue;
        const std::optional<uint32_t> id = readTrackId(file, *header);
        std::optional<IsoSampleTable> table = readTimes(file, *times);
        if (!id || !table) continue;
        table->trackId = *id;
        tables.push_back(*table);
    }
    return tables;
}

}  // namespace qmmediaeditor
}  // namespace android
