#include "host/extractor/CodecConfig.h"

#include <media/stagefright/foundation/ABuffer.h>

#include <algorithm>
#include <vector>

namespace android {
namespace qmmediaeditor {

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kStartCode[] = {0, 0, 0, 1};
constexpr int kAvcSequenceParameterSet = 7;
constexpr int kAvcPictureParameterSet = 8;

// Reads a configuration record; once a read goes past the end, everything reads as empty.
class Reader {
public:
    Reader(const uint8_t* data, size_t size) : mData(data), mEnd(data + size) {}

    void skip(size_t count) { mData += std::min(count, remaining()); }
    unsigned get8() { return remaining() == 0 ? 0 : *mData++; }
    unsigned get16() {
        const unsigned high = get8();
        return high << 8 | get8();
    }
    // A parameter set with its 16-bit length.
    void appendUnit(Bytes* out) {
        const size_t size = get16();
        if (size == 0 || size > remaining()) {
            mData = mEnd;
            return;
        }
        out->insert(out->end(), std::begin(kStartCode), std::end(kStartCode));
        out->insert(out->end(), mData, mData + size);
        mData += size;
    }

private:
    size_t remaining() const { return static_cast<size_t>(mEnd - mData); }

    const uint8_t* mData;
    const uint8_t* const mEnd;
};

bool setBytes(const char* name, const uint8_t* data, size_t size, const sp<AMessage>& format) {
    if (size == 0) return true;
    const sp<ABuffer> copy = ABuffer::CreateAsCopy(data, size);
    if (copy == nullptr) return false;
    format->setBuffer(name, copy);
    return true;
}

bool isByteStream(const uint8_t* data, size_t size) {
    return size >= 4 && data[0] == 0 && data[1] == 0 &&
           (data[2] == 1 || (data[2] == 0 && data[3] == 1));
}

void splitRecord(const uint8_t* data, size_t size, Bytes* sequence, Bytes* picture) {
    Reader reader(data, size);
    reader.skip(5);
    for (unsigned count = reader.get8() & 0x1F; count > 0; --count) reader.appendUnit(sequence);
    for (unsigned count = reader.get8(); count > 0; --count) reader.appendUnit(picture);
}

void splitByteStream(const uint8_t* data, size_t size, Bytes* sequence, Bytes* picture) {
    constexpr uint8_t kPrefix[] = {0, 0, 1};
    const uint8_t* const end = data + size;
    const uint8_t* unit = std::search(data, end, std::begin(kPrefix), std::end(kPrefix));
    while (unit != end) {
        unit += sizeof(kPrefix);
        const uint8_t* const next = std::search(unit, end, std::begin(kPrefix), std::end(kPrefix));
        const uint8_t* last = next;
        while (last > unit && last[-1] == 0) --last;
        const int type = last > unit ? *unit & 0x1F : 0;
        Bytes* const out = type == kAvcSequenceParameterSet  ? sequence
                           : type == kAvcPictureParameterSet ? picture
                                                             : nullptr;
        if (out != nullptr) {
            out->insert(out->end(), std::begin(kStartCode), std::end(kStartCode));
            out->insert(out->end(), unit, last);
        }
        unit = next;
    }
}

}  // namespace

bool setAvcConfig(const uint8_t* extradata, size_t size, const sp<AMessage>& format) {
    Bytes sequence;
    Bytes picture;
    if (isByteStream(extradata, size)) {
        splitByteStream(extradata, size, &sequence, &picture);
    } else {
        splitRecord(extradata, size, &sequence, &picture);
    }
    return setBytes("csd-0", sequence.data(), sequence.size(), format) &&
           setBytes("csd-1", picture.data(), picture.size(), format);
}

bool setHevcConfig(const uint8_t* extradata, size_t size, const sp<AMessage>& format) {
    if (isByteStream(extradata, size)) return setPlainConfig(extradata, size, format);
    Bytes units;
    Reader reader(extradata, size);
    reader.skip(22);
    for (unsigned arrays = reader.get8(); arrays > 0; --arrays) {
        reader.skip(1);
        for (unsigned count = reader.get16(); count > 0; --count) reader.appendUnit(&units);
    }
    return setBytes("csd-0", units.data(), units.size(), format);
}

bool setPlainConfig(const uint8_t* extradata, size_t size, const sp<AMessage>& format) {
    return setBytes("csd-0", extradata, size, format);
}

}  // namespace qmmediaeditor
}  // namespace android
