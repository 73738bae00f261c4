#include "host/writer/MovieCompletion.h"

#include <media/stagefright/MediaErrors.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "host/io/IsoBoxes.h"

namespace android {
namespace qmmediaeditor {

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kHeaderBytes = 8;
constexpr size_t kTableHeaderBytes = 8;
// Fields of a sample entry in front of its boxes.
constexpr size_t kAudioEntryBytes = 28;
constexpr size_t kVisualEntryBytes = 78;
// Behind the vendor and the version of the decoder.
constexpr size_t kH263LevelOffset = 5;
constexpr size_t kMovedAtOnceBytes = 1 << 20;
// Primaries, transfer function and matrix of BT.709, limited range.
constexpr uint8_t kColorBox[] = {0,   0,   0, 19, 'c', 'o', 'l', 'r', 'n', 'c',
                                 'l', 'x', 0, 1,  0,   1,   0,   1,   0};

void put32(uint32_t value, uint8_t* data) {
    for (int i = 0; i < 4; ++i) data[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
}

class MovieRewriter {
public:
    // `shiftBytes` is how far the media data moves.
    MovieRewriter(int h263Level, int64_t shiftBytes)
        : mH263Level(static_cast<uint8_t>(h263Level)), mShiftBytes(shiftBytes) {}

    // Empty when the boxes are not as libavformat writes them.
    Bytes rewrite(const Bytes& movie) {
        addBoxes(movie.data(), movie.size());
        if (!mIsExpected) mOut.clear();
        return std::move(mOut);
    }

private:
    void addBoxes(const uint8_t* data, size_t size) {
        while (size > 0 && mIsExpected) {
            const size_t boxBytes = size < kHeaderBytes ? 0 : get32(data);
            mIsExpected = boxBytes >= kHeaderBytes && boxBytes <= size;
            if (!mIsExpected) return;
            const size_t start = mOut.size();
            add(data, kHeaderBytes);
            addPayload(get32(data + 4), data + kHeaderBytes, boxBytes - kHeaderBytes, start);
            put32(static_cast<uint32_t>(mOut.size() - start), &mOut[start]);
            data += boxBytes;
            size -= boxBytes;
        }
    }

    // The new box starts at `start` of the output.
    void addPayload(uint32_t type, const uint8_t* data, size_t size, size_t start) {
        switch (type) {
            case fourCc("trak"):
                mIsAmr = false;
                [[fallthrough]];
            case fourCc("moov"):
            case fourCc("mdia"):
            case fourCc("minf"):
            case fourCc("stbl"):
                addBoxes(data, size);
                break;
            case fourCc("stsd"):
                addWithFields(data, size, kTableHeaderBytes);
                break;
            case fourCc("s263"):
            case fourCc("mp4v"):
            case fourCc("avc1"):
                addWithFields(data, size, kVisualEntryBytes);
                add(kColorBox, sizeof(kColorBox));
                break;
            case fourCc("samr"):
            case fourCc("sawb"):
                mIsAmr = true;
                addWithFields(data, size, kAudioEntryBytes);
                break;
            case fourCc("glbl"):
                if (mIsAmr) put32(fourCc("damr"), &mOut[start + 4]);
                add(data, size);
                break;
            case fourCc("d263"):
                add(data, size);
                if (size > kH263LevelOffset) {
                    mOut[start + kHeaderBytes + kH263LevelOffset] = mH263Level;
                }
                break;
            case fourCc("stsz"):
                addSizes(data, size);
                break;
            case fourCc("stco"):
            case fourCc("co64"):
                addOffsets(data, size, type == fourCc("co64"));
                break;
            default:
                add(data, size);
        }
    }

    void add(const uint8_t* data, size_t size) { mOut.insert(mOut.end(), data, data + size); }

    void add32(uint32_t value) {
        uint8_t bytes[4];
        put32(value, bytes);
        add(bytes, sizeof(bytes));
    }

    // A box whose own fields are followed by boxes.
    void addWithFields(const uint8_t* data, size_t size, size_t fieldBytes) {
        mIsExpected = mIsExpected && size >= fieldBytes;
        if (!mIsExpected) return;
        add(data, fieldBytes);
        addBoxes(data + fieldBytes, size - fieldBytes);
    }

    // Version and flags, the size of all samples or 0, and the number of samples; a table for 0.
    void addSizes(const uint8_t* data, size_t size) {
        const uint32_t constantBytes = size == 12 ? get32(data + 4) : 0;
        if (!mIsAmr || constantBytes == 0) return add(data, size);
        const uint32_t count = get32(data + 8);
        add(data, 4);
        add32(0);
        add32(count);
        for (uint32_t i = 0; i < count; ++i) add32(constantBytes);
    }

    void addOffsets(const uint8_t* data, size_t size, bool isWide) {
        const size_t entryBytes = isWide ? 8 : 4;
        add(data, std::min(size, kTableHeaderBytes));
        for (size_t at = kTableHeaderBytes; at + entryBytes <= size; at += entryBytes) {
            const uint64_t high = isWide ? get32(data + at) : 0;
            const uint64_t offset = (high << 32 | get32(data + at + entryBytes - 4)) +
                                    static_cast<uint64_t>(mShiftBytes);
            mIsExpected = mIsExpected && (isWide || offset <= UINT32_MAX);
            if (isWide) add32(static_cast<uint32_t>(offset >> 32));
            add32(static_cast<uint32_t>(offset));
        }
    }

    const uint8_t mH263Level;
    const int64_t mShiftBytes;
    bool mIsAmr = false;  // of the track at hand
    bool mIsExpected = true;
    Bytes mOut;
};

status_t readError(const DescriptorFile& file) {
    return file.status() == OK ? status_t{ERROR_MALFORMED} : file.status();
}

// From the end, so that nothing is overwritten before it has moved.
status_t moveTail(DescriptorFile* file, int64_t from, int64_t byBytes) {
    Bytes block(kMovedAtOnceBytes);
    for (int64_t end = file->sizeBytes(); end > from;) {
        const auto size =
            static_cast<size_t>(std::min(end - from, static_cast<int64_t>(block.size())));
        end -= static_cast<int64_t>(size);
        if (!file->readFully(end, block.data(), size)) return readError(*file);
        const status_t result = file->writeAt(end + byBytes, block.data(), size);
        if (result != OK) return result;
    }
    return OK;
}

}  // namespace

status_t completeMovie(DescriptorFile* file, int h263Level) {
    const TopLevelBoxes boxes = readTopLevelBoxes(*file);
    Bytes movie(static_cast<size_t>(boxes.movieBytes));
    if (movie.empty()) return file->status();
    if (!file->readFully(boxes.movieOffset, movie.data(), movie.size())) return readError(*file);
    Bytes rewritten = MovieRewriter(h263Level, 0).rewrite(movie);
    if (rewritten.empty()) return OK;
    const int64_t behind = boxes.movieOffset + boxes.movieBytes;
    const auto grownBytes = static_cast<int64_t>(rewritten.size() - movie.size());
    if (behind < file->sizeBytes()) {
        rewritten = MovieRewriter(h263Level, grownBytes).rewrite(movie);
        if (rewritten.empty()) return OK;
        const status_t result = moveTail(file, behind, grownBytes);
        if (result != OK) return result;
    }
    return file->writeAt(boxes.movieOffset, rewritten.data(), rewritten.size());
}

}  // namespace qmmediaeditor
}  // namespace android
