#include "host/io/UuidBox.h"

#include <string.h>

#include "host/io/DescriptorFile.h"
#include "host/io/IsoBoxes.h"

namespace android {
namespace qmmediaeditor {

namespace {

constexpr size_t kHeaderBytes = 8;
constexpr size_t kTypeBytes = 16;
constexpr size_t kMaxUuidBytes = 64 << 20;
// Bounds the walk over a file that consists of tiny boxes.
constexpr int kMaxBoxes = 100000;

constexpr uint32_t kUuid = fourCc('u', 'u', 'i', 'd');
constexpr uint32_t kMovie = fourCc('m', 'o', 'o', 'v');

void put32(uint32_t value, std::vector<uint8_t>* out) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        out->push_back(static_cast<uint8_t>(value >> shift));
    }
}

void appendBox(const uint8_t* content, size_t size, std::vector<uint8_t>* out) {
    put32(static_cast<uint32_t>(kHeaderBytes + size), out);
    put32(kUuid, out);
    out->insert(out->end(), content, content + size);
}

bool isSequenceOfBoxes(const uint8_t* data, size_t size) {
    size_t offset = 0;
    while (size - offset >= kHeaderBytes + kTypeBytes) {
        const uint32_t boxBytes = get32(data + offset);
        if (get32(data + offset + 4) != kUuid || boxBytes < kHeaderBytes + kTypeBytes) return false;
        if (boxBytes > size - offset) return false;
        offset += boxBytes;
    }
    return offset == size;
}

}  // namespace

TopLevelBoxes readTopLevelBoxes(const InputFile& file) {
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
        if (box->type != kUuid || size < kTypeBytes || size > kMaxUuidBytes - totalBytes) continue;
        std::vector<uint8_t> content(static_cast<size_t>(size));
        if (!file.readFully(box->payloadOffset, content.data(), content.size())) break;
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
    if (data == nullptr || size < kTypeBytes || size > UINT32_MAX - kHeaderBytes) return boxes;
    if (isSequenceOfBoxes(data, size)) {
        boxes.assign(data, data + size);
    } else {
        appendBox(data, size, &boxes);
    }
    return boxes;
}

}  // namespace qmmediaeditor
}  // namespace android
