#include "host/io/IsoBoxes.h"

#include <ctype.h>
#include <string.h>

#include <algorithm>
#include <initializer_list>
#include <iterator>

namespace android {
namespace qmmediaeditor {

namespace {

constexpr uint32_t kMovieHeader = fourCc("mvhd");
constexpr uint32_t kCompressedMovie = fourCc("cmov");
constexpr uint32_t kTrackHeader = fourCc("tkhd");
constexpr int64_t kHeaderBytes = 8;
constexpr int64_t kLargeHeaderBytes = 16;
// Bounds the walk over a box that consists of tiny boxes.
constexpr int kMaxChildren = 1000;
constexpr int64_t kTableHeaderBytes = 8;
constexpr int64_t kTimeEntryBytes = 8;
// A variable-rate track has an entry for each frame: ten days at 30 frames per second.
constexpr int64_t kMaxTimeEntries = INT64_C(1) << 24;

// Offsets are bytes of the file.
struct IsoBox {
    uint32_t type = 0;
    int64_t offset = 0;
    int64_t payloadOffset = 0;
    int64_t endOffset = 0;
};

// The box at `offset` of a sequence of boxes that ends at `limit`; nothing when there is none, or
// when it does not fit. A size of 1 is followed by the real size in 64 bits, and 0 means: up to the
// limit.
std::optional<IsoBox> readBox(const DescriptorFile& file, int64_t offset, int64_t limit) {
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

std::optional<IsoBox> findChild(const DescriptorFile& file, const IsoBox& parent, uint32_t type) {
    int64_t offset = parent.payloadOffset;
    for (int i = 0; i < kMaxChildren; ++i) {
        const std::optional<IsoBox> child = readBox(file, offset, parent.endOffset);
        if (!child || child->type == type) return child;
        offset = child->endOffset;
    }
    return std::nullopt;
}

std::optional<IsoBox> findPath(const DescriptorFile& file, const IsoBox& parent,
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

std::optional<Header> readHeader(const DescriptorFile& file, const std::optional<IsoBox>& box) {
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

std::optional<IsoTrackLength> readTimes(const DescriptorFile& file, const IsoBox& times) {
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
    explicit BufferedReader(const DescriptorFile& file) : mFile(file), mBytes(4096) {}

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

    const DescriptorFile& mFile;
    std::vector<uint8_t> mBytes;
    int64_t mOffset = 0;
    size_t mCount = 0;
};

// Adds up the samples that tables name. It follows libavformat where a file breaks the rules,
// because samples that only libavformat finds would pass: a box that is too large ends with its
// parent, and tables count outside of their tracks too.
class SampleTables {
public:
    explicit SampleTables(const DescriptorFile& file) : mFile(file), mReader(file) {}

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
            case fourCc("free"):
            case fourCc("hoov"): {
                // Some programs reserve the place of a movie box under these names.
                const uint8_t* child = mReader.at(payload, kHeaderBytes);
                const uint32_t inside = child == nullptr ? 0 : get32(child + 4);
                if (inside != kMovieHeader && inside != kCompressedMovie) return;
                [[fallthrough]];
            }
            case fourCc("moov"):
            case fourCc("moof"):
            case fourCc("trak"):
            case fourCc("traf"):
            case fourCc("mdia"):
            case fourCc("minf"):
            case fourCc("stbl"):
            case fourCc("edts"):
            case fourCc("mvex"):
            case fourCc("udta"):
            case fourCc("wave"):
                if (depth < kMaxDepth) walk(payload, end, depth + 1);
                return;
            case kCompressedMovie:
                mIsCompressed = true;
                return;
            case fourCc("stsz"):
            case fourCc("stz2"):
                mTables[kSizes].samples += numberAt(payload + 8);
                return;
            case fourCc("trun"):
                mTables[kRuns].samples += numberAt(payload + 4);
                return;
            case fourCc("stts"):
                mTables[kTimes].samples += sumOfEntries(payload, end);
                return;
            case fourCc("ctts"):
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

    const DescriptorFile& mFile;
    BufferedReader mReader;
    Table mTables[4] = {{"stsz", 0}, {"stts", 0}, {"ctts", 0}, {"trun", 0}};
    bool mIsCompressed = false;
};

constexpr size_t kUuidTypeBytes = 16;
constexpr size_t kMaxUuidBytes = 64 << 20;
// Bounds the walk over a file that consists of tiny boxes.
constexpr int kMaxBoxes = 100000;

constexpr uint32_t kUuid = fourCc("uuid");
constexpr uint32_t kMovie = fourCc("moov");
constexpr uint32_t kUserData = fourCc("udta");
constexpr int64_t kMaxUserDataBytes = 4096;

// The type of uuid boxes that hold XMP (ISO 16684-3).
constexpr uint8_t kXmpType[kUuidTypeBytes] = {0xbe, 0x7a, 0xcf, 0xcb, 0x97, 0xa9, 0x42, 0xe8,
                                              0x9c, 0x71, 0x99, 0x94, 0x91, 0xe3, 0xaf, 0xac};

bool hasName(const std::string& text, const char* name, const char* precedingCharacters) {
    for (size_t at = 0; (at = text.find(name, at)) != std::string::npos; ++at) {
        if (at > 0 && strchr(precedingCharacters, text[at - 1]) != nullptr) return true;
    }
    return false;
}

// A file may bind the namespace of EXIF to any prefix, or to none, so that in a box for XMP the
// local name decides as well; some recorders write it in other cases, and one misspells it. Boxes
// of other types may be binary.
bool hasXmpLocation(const std::vector<uint8_t>& content) {
    constexpr size_t kStepBytes = 64 * 1024;
    constexpr size_t kOverlapBytes = 32;
    const bool isXmp = memcmp(content.data(), kXmpType, kUuidTypeBytes) == 0;
    std::string text;
    for (size_t at = kUuidTypeBytes; at < content.size(); at += kStepBytes) {
        text.erase(0, text.size() - std::min(text.size(), kOverlapBytes));
        const auto begin = content.begin() + static_cast<ptrdiff_t>(at);
        const auto size = std::min(kStepBytes, content.size() - at);
        // Without zeros, UTF-16 and UTF-32 look like UTF-8 here.
        std::for_each(begin, begin + static_cast<ptrdiff_t>(size), [&text](uint8_t byte) {
            if (byte != 0) text += static_cast<char>(tolower(byte));
        });
        if (text.find("exif:gps") != std::string::npos) return true;
        if (!isXmp) continue;
        for (const char* name : {"gpslatitude", "gpslongitude", "gpslongtitude", "gpsdestl"}) {
            if (hasName(text, name, ":< \t\r\n")) return true;
        }
    }
    return false;
}

std::string hexOf(const uint8_t* data, size_t size) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        text += kDigits[data[i] >> 4];
        text += kDigits[data[i] & 15];
    }
    return text;
}

void put32(uint32_t value, std::vector<uint8_t>* out) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        out->push_back(static_cast<uint8_t>(value >> shift));
    }
}

void appendBox(const uint8_t* content, size_t size, std::vector<uint8_t>* out) {
    put32(static_cast<uint32_t>(static_cast<size_t>(kHeaderBytes) + size), out);
    put32(kUuid, out);
    out->insert(out->end(), content, content + size);
}

bool isSequenceOfBoxes(const uint8_t* data, size_t size) {
    size_t offset = 0;
    while (size - offset >= static_cast<size_t>(kHeaderBytes) + kUuidTypeBytes) {
        const uint32_t boxBytes = get32(data + offset);
        if (get32(data + offset + 4) != kUuid ||
            boxBytes < static_cast<size_t>(kHeaderBytes) + kUuidTypeBytes)
            return false;
        if (boxBytes > size - offset) return false;
        offset += boxBytes;
    }
    return offset == size;
}

}  // namespace

std::optional<std::string> checkSampleTables(const DescriptorFile& file) {
    return SampleTables(file).check();
}

std::vector<IsoTrackLength> readTrackLengths(const DescriptorFile& file, int64_t movieOffset) {
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
        if (box->type != fourCc("trak")) continue;
        const auto header = readHeader(file, findChild(file, *box, kTrackHeader));
        const auto times =
            findPath(file, *box, {fourCc("mdia"), fourCc("minf"), fourCc("stbl"), fourCc("stts")});
        if (!header || !times) continue;
        std::optional<IsoTrackLength> length = readTimes(file, *times);
        if (!length) continue;
        length->trackId = header->field;
        length->presentationTicks = header->duration;
        length->movieTicksPerSecond = movieHeader->field;
        lengths.push_back(*length);
    }
    return lengths;
}

TopLevelBoxes readTopLevelBoxes(const DescriptorFile& file, XmpLocations locations) {
    TopLevelBoxes result;
    std::vector<std::vector<uint8_t>> contents;
    size_t totalBytes = 0;
    int64_t offset = 0;
    for (int i = 0; i < kMaxBoxes; ++i) {
        const std::optional<IsoBox> box = readBox(file, offset, file.sizeBytes());
        if (!box) break;
        offset = box->endOffset;
        if (box->type == kMovie && result.movieBytes == 0) {
            result.movieOffset = box->offset;
            result.movieBytes = box->endOffset - box->offset;
        }
        const auto size = static_cast<uint64_t>(box->endOffset - box->payloadOffset);
        if (box->type != kUuid || size < kUuidTypeBytes || size > kMaxUuidBytes - totalBytes)
            continue;
        std::vector<uint8_t> content(static_cast<size_t>(size));
        if (!file.readFully(box->payloadOffset, content.data(), content.size())) break;
        if (locations == XmpLocations::kLeaveOut && hasXmpLocation(content)) {
            result.locatedTypes.push_back(hexOf(content.data(), kUuidTypeBytes));
            continue;
        }
        totalBytes += content.size();
        contents.push_back(std::move(content));
    }
    // The content of one box stands alone, unless it would be taken for boxes.
    if (contents.size() == 1 &&
        !isSequenceOfBoxes(contents.front().data(), contents.front().size())) {
        result.uuidData = std::move(contents.front());
    } else {
        for (const auto& content : contents) {
            appendBox(content.data(), content.size(), &result.uuidData);
        }
    }
    return result;
}

std::vector<uint8_t> makeUuidBoxes(const uint8_t* data, size_t size) {
    std::vector<uint8_t> boxes;
    if (data == nullptr || size < kUuidTypeBytes ||
        size > UINT32_MAX - static_cast<size_t>(kHeaderBytes))
        return boxes;
    if (isSequenceOfBoxes(data, size)) {
        boxes.assign(data, data + size);
    } else {
        appendBox(data, size, &boxes);
    }
    return boxes;
}

std::vector<UserDataBox> readUserData(const DescriptorFile& file, int64_t movieOffset) {
    std::vector<UserDataBox> boxes;
    const std::optional<IsoBox> movie = readBox(file, movieOffset, file.sizeBytes());
    const std::optional<IsoBox> data = movie ? findChild(file, *movie, kUserData) : std::nullopt;
    if (!data) return boxes;
    int64_t offset = data->payloadOffset;
    for (int i = 0; i < kMaxChildren; ++i) {
        const std::optional<IsoBox> box = readBox(file, offset, data->endOffset);
        if (!box) break;
        offset = box->endOffset;
        const int64_t size = box->endOffset - box->payloadOffset;
        if (size > kMaxUserDataBytes) continue;
        UserDataBox entry = {box->type, std::vector<uint8_t>(static_cast<size_t>(size))};
        if (!file.readFully(box->payloadOffset, entry.payload.data(), entry.payload.size())) break;
        boxes.push_back(std::move(entry));
    }
    return boxes;
}

status_t replaceUserData(DescriptorFile* file, const std::vector<uint8_t>& boxes) {
    const int64_t movieOffset = readTopLevelBoxes(*file).movieOffset;
    const std::optional<IsoBox> movie = readBox(*file, movieOffset, file->sizeBytes());
    const std::optional<IsoBox> place =
        movie && movie->type == kMovie ? findChild(*file, *movie, kUserData) : std::nullopt;
    if (file->status() != OK) return file->status();
    if (!place || place->endOffset != movie->endOffset) return BAD_VALUE;
    const int64_t rest = place->endOffset - place->offset - static_cast<int64_t>(boxes.size());
    if (rest < 0 || (rest > 0 && rest < kHeaderBytes)) return BAD_VALUE;
    std::vector<uint8_t> content = boxes;
    if (rest > 0) {
        put32(static_cast<uint32_t>(rest), &content);
        put32(fourCc("free"), &content);
        content.resize(boxes.size() + static_cast<size_t>(rest), 0);
    }
    return file->writeAt(place->offset, content.data(), content.size());
}

}  // namespace qmmediaeditor
}  // namespace android
