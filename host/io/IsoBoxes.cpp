#include "host/io/IsoBoxes.h"

#include <algorithm>
#include <initializer_list>

extern "C" {
#include <libavutil/mathematics.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr uint32_t kMovieHeader = fourCc('m', 'v', 'h', 'd');
constexpr uint32_t kCompressedMovie = fourCc('c', 'm', 'o', 'v');
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

// Reads forward through a file, a page at a time.
class BufferedReader {
public:
    explicit BufferedReader(const InputFile& file) : mFile(file), mBytes(4096) {}

    // `size` bytes, at most 16; null at the end of the file and after a read error.
    const uint8_t* at(int64_t offset, size_t size) {
        const bool isInside = offset >= mOffset && offset + static_cast<int64_t>(size) <=
                                                       mOffset + static_cast<int64_t>(mCount);
        if (!isInside) fill(offset);
        return mCount - static_cast<size_t>(offset - mOffset) < size
                   ? nullptr
                   : &mBytes[static_cast<size_t>(offset - mOffset)];
    }

private:
    void fill(int64_t offset) {
        mOffset = offset;
        mCount = 0;
        while (mCount < mBytes.size()) {
            const ssize_t count = mFile.readAt(offset + static_cast<int64_t>(mCount),
                                               &mBytes[mCount], mBytes.size() - mCount);
            if (count <= 0) return;
            mCount += static_cast<size_t>(count);
        }
    }

    const InputFile& mFile;
    std::vector<uint8_t> mBytes;
    int64_t mOffset = 0;
    size_t mCount = 0;
};

// Adds up the samples that tables name. It follows libavformat where a file breaks the rules,
// because samples that only libavformat finds would pass: a box that is too large ends with its
// parent, and tables count outside of their tracks too.
class SampleTables {
public:
    explicit SampleTables(const InputFile& file) : mFile(file), mReader(file) {}

    std::optional<std::string> check() {
        walk(0, mFile.sizeBytes(), 0);
        for (const Table& table : mTables) {
            if (table.samples > mFile.sizeBytes()) {
                return std::string("tables of samples (") + table.name + ") name " +
                       std::to_string(table.samples) + " samples, and the file has only " +
                       std::to_string(mFile.sizeBytes()) + " bytes";
            }
        }
        if (mIsCompressed) return "its index is compressed (cmov), which is not read";
        return std::nullopt;
    }

private:
    struct Table {
        const char* name;
        int64_t samples;
    };

    // Boxes without an end of their own, or with a size that is none, go on to `end`.
    void walk(int64_t offset, int64_t end, int depth) {
        while (offset <= end - kHeaderBytes) {
            const uint8_t* header = mReader.at(offset, kHeaderBytes);
            if (header == nullptr) return;
            uint64_t size = get32(header);
            const uint32_t type = get32(header + 4);
            int64_t headerBytes = kHeaderBytes;
            if (size == 1) {
                headerBytes = kLargeHeaderBytes;
                header = mReader.at(offset, kLargeHeaderBytes);
                if (header == nullptr) return;
                size = static_cast<uint64_t>(get32(header + 8)) << 32 | get32(header + 12);
            }
            const auto rest = static_cast<uint64_t>(end - offset);
            if (size == 0 || size > rest) size = rest;
            if (size < static_cast<uint64_t>(headerBytes)) return;
            const int64_t boxEnd = offset + static_cast<int64_t>(size);
            visit(type, offset + headerBytes, boxEnd, depth);
            offset = boxEnd;
        }
    }

    void visit(uint32_t type, int64_t payload, int64_t end, int depth) {
        switch (type) {
            case fourCc('f', 'r', 'e', 'e'):
            case fourCc('h', 'o', 'o', 'v'): {
                // Some programs reserve the place of a movie box under these names.
                const uint8_t* child = mReader.at(payload, kHeaderBytes);
                const uint32_t inside = child == nullptr ? 0 : get32(child + 4);
                if (inside != kMovieHeader && inside != kCompressedMovie) return;
                [[fallthrough]];
            }
            case fourCc('m', 'o', 'o', 'v'):
            case fourCc('m', 'o', 'o', 'f'):
            case fourCc('t', 'r', 'a', 'k'):
            case fourCc('t', 'r', 'a', 'f'):
            case fourCc('m', 'd', 'i', 'a'):
            case fourCc('m', 'i', 'n', 'f'):
            case fourCc('s', 't', 'b', 'l'):
            case fourCc('e', 'd', 't', 's'):
            case fourCc('m', 'v', 'e', 'x'):
            case fourCc('u', 'd', 't', 'a'):
            case fourCc('w', 'a', 'v', 'e'):
                if (depth < kMaxDepth) walk(payload, end, depth + 1);
                return;
            case kCompressedMovie:
                mIsCompressed = true;
                return;
            case fourCc('s', 't', 's', 'z'):
            case fourCc('s', 't', 'z', '2'):
                mTables[kSizes].samples += numberAt(payload + 8);
                return;
            case fourCc('t', 'r', 'u', 'n'):
                mTables[kRuns].samples += numberAt(payload + 4);
                return;
            case fourCc('s', 't', 't', 's'):
                mTables[kTimes].samples += sumOfEntries(payload, end);
                return;
            case fourCc('c', 't', 't', 's'):
                mTables[kOffsets].samples += sumOfEntries(payload, end);
                return;
            default:
                return;
        }
    }

    int64_t numberAt(int64_t offset) {
        const uint8_t* number = mReader.at(offset, 4);
        return number == nullptr ? 0 : get32(number);
    }

    // Each entry begins with the number of its samples.
    int64_t sumOfEntries(int64_t payload, int64_t end) {
        int64_t sum = 0;
        const int64_t entries = numberAt(payload + 4);
        int64_t offset = payload + kTableHeaderBytes;
        for (int64_t i = 0; i < entries && offset <= end - kTimeEntryBytes; ++i) {
            sum += numberAt(offset);
            offset += kTimeEntryBytes;
        }
        return sum;
    }

    // libavformat gives up there, too.
    static constexpr int kMaxDepth = 10;
    enum { kSizes, kTimes, kOffsets, kRuns };

    const InputFile& mFile;
    BufferedReader mReader;
    Table mTables[4] = {{"stsz", 0}, {"stts", 0}, {"ctts", 0}, {"trun", 0}};
    bool mIsCompressed = false;
};

}  // namespace

std::optional<std::string> checkSampleTables(const InputFile& file) {
    return SampleTables(file).check();
}

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
