#include "host/codec/PacketChecksum.h"

#include <algorithm>
#include <iterator>

namespace android {
namespace qmmediaeditor {

namespace {

class Fnv {
public:
    void add(const uint8_t* data, size_t size) {
        for (size_t i = 0; i < size; ++i) mValue = (mValue ^ data[i]) * UINT64_C(0x100000001b3);
    }
    // Zeros behind a NAL unit belong to the start code that follows.
    void addUnit(const uint8_t* data, size_t size) {
        while (size > 0 && data[size - 1] == 0) --size;
        if (size == 0) return;
        const uint8_t length[] = {static_cast<uint8_t>(size >> 24),
                                  static_cast<uint8_t>(size >> 16), static_cast<uint8_t>(size >> 8),
                                  static_cast<uint8_t>(size)};
        add(length, sizeof(length));
        add(data, size);
    }
    uint64_t value() const { return mValue; }

private:
    uint64_t mValue = UINT64_C(0xcbf29ce484222325);
};

constexpr uint8_t kStartCode[] = {0, 0, 1};

}  // namespace

uint64_t packetChecksum(const uint8_t* data, size_t size, PacketForm form) {
    Fnv checksum;
    const uint8_t* const end = data + size;
    switch (form) {
        case PacketForm::kWhole:
            checksum.add(data, size);
            break;
        case PacketForm::kStartCodes:
            for (const uint8_t* at = data; at < end;) {
                const uint8_t* const next =
                    std::search(at, end, std::begin(kStartCode), std::end(kStartCode));
                checksum.addUnit(at, static_cast<size_t>(next - at));
                at = next == end ? end : next + sizeof(kStartCode);
            }
            break;
        case PacketForm::kLengths:
            while (end - data > 4) {
                const size_t length = size_t{data[0]} << 24 | size_t{data[1]} << 16 |
                                      size_t{data[2]} << 8 | size_t{data[3]};
                data += 4;
                const size_t present = std::min(length, static_cast<size_t>(end - data));
                checksum.addUnit(data, present);
                data += present;
            }
            break;
    }
    return checksum.value();
}

}  // namespace qmmediaeditor
}  // namespace android
