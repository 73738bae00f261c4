// Tells whether two packets have the same data.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace android {
namespace qmmediaeditor {

// How the NAL units of AVC are told apart in a packet; other codecs have none.
enum class PacketForm {
    kWhole,       // no NAL units
    kStartCodes,  // ITU-T H.264, annex B, as encoders deliver them
    kLengths,     // four bytes with the length of each, as files have them
};

// The same for both forms of the same NAL units. FNV-1a, 64 bits.
uint64_t packetChecksum(const uint8_t* data, size_t size, PacketForm form);

}  // namespace qmmediaeditor
}  // namespace android
