#include <gtest/gtest.h>

#include <vector>

#include "host/codec/PacketChecksum.h"

namespace android {
namespace qmmediaeditor {
namespace {

uint64_t checksum(const std::vector<uint8_t>& data, PacketForm form) {
    return packetChecksum(data.data(), data.size(), form);
}

TEST(PacketChecksumTest, OfNalUnitsIsTheSameInBothForms) {
    const uint64_t lengths =
        checksum({0, 0, 0, 3, 9, 8, 7, 0, 0, 0, 2, 6, 5}, PacketForm::kLengths);
    EXPECT_EQ(lengths, checksum({0, 0, 0, 1, 9, 8, 7, 0, 0, 1, 6, 5}, PacketForm::kStartCodes));
    EXPECT_EQ(lengths,
              checksum({0, 0, 1, 9, 8, 7, 0, 0, 0, 0, 1, 6, 5, 0}, PacketForm::kStartCodes));
    // A bit, and the border between two units.
    EXPECT_NE(lengths, checksum({0, 0, 0, 3, 9, 8, 6, 0, 0, 0, 2, 6, 5}, PacketForm::kLengths));
    EXPECT_NE(lengths, checksum({0, 0, 0, 2, 9, 8, 0, 0, 0, 3, 7, 6, 5}, PacketForm::kLengths));
    // A length beyond the end.
    EXPECT_NE(lengths, checksum({0, 0, 0, 3, 9, 8, 7, 255, 0, 0, 2, 6}, PacketForm::kLengths));
}

TEST(PacketChecksumTest, OfWholePacketsHasAllBytes) {
    EXPECT_NE(checksum({1, 0}, PacketForm::kWhole), checksum({1}, PacketForm::kWhole));
    EXPECT_EQ(checksum({}, PacketForm::kWhole), checksum({}, PacketForm::kStartCodes));
}

}  // namespace
}  // namespace qmmediaeditor
}  // namespace android
