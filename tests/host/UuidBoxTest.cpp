// The walk over top-level boxes, on files that tell the truth and files that do not.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "host/io/DescriptorFile.h"
#include "host/io/IsoBoxes.h"

namespace android {
namespace qmmediaeditor {

namespace {

const std::string kFirstType = "0123456789abcdef";
const std::string kSecondType = "ABCDEF9876543210";

std::string number(uint64_t value, int bytes) {
    std::string result;
    for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8) {
        result.push_back(static_cast<char>(value >> shift));
    }
    return result;
}

std::string box(const std::string& type, const std::string& content) {
    return number(content.size() + 8, 4) + type + content;
}

std::string largeBox(const std::string& type, const std::string& content) {
    return number(1, 4) + type + number(content.size() + 16, 8) + content;
}

TopLevelBoxes walk(const std::string& bytes) {
    const int fd = memfd_create("boxes", MFD_CLOEXEC);
    // The window starts behind something that is none of its business.
    const std::string before = box("uuid", std::string(16, 'x'));
    EXPECT_EQ(static_cast<ssize_t>(before.size()), write(fd, before.data(), before.size()));
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(fd, bytes.data(), bytes.size()));
    const auto file =
        DescriptorFile::openForReading(fd, static_cast<int64_t>(before.size()), INT64_MAX / 2).file;
    close(fd);
    return readTopLevelBoxes(*file);
}

std::string textOf(const std::vector<uint8_t>& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

std::string written(const std::vector<uint8_t>& uuidData) {
    return textOf(makeUuidBoxes(uuidData.data(), uuidData.size()));
}

const std::string kStart = box("ftyp", "isom") + box("moov", "movie");

}  // namespace

TEST(UuidBox, oneBox_travelsAsTypeAndPayload_andIsWrittenAgainAsItWas) {
    const std::string uuid = box("uuid", kFirstType + "payload");
    const TopLevelBoxes boxes = walk(kStart + uuid + box("mdat", "uuid"));
    EXPECT_EQ(kFirstType + "payload", textOf(boxes.uuidData));
    EXPECT_EQ(uuid, written(boxes.uuidData));
    EXPECT_EQ(12, boxes.movieOffset);
    EXPECT_EQ(13, boxes.movieBytes);
}

TEST(UuidBox, severalBoxes_allComeOut) {
    const std::string first = box("uuid", kFirstType + "one");
    const std::string second = box("uuid", kSecondType);
    EXPECT_EQ(first + second, written(walk(first + kStart + second).uuidData));
}

TEST(UuidBox, oneBoxThatHoldsWhatLooksLikeABox_isWrittenAgainAsItWas) {
    const std::string uuid = box("uuid", box("uuid", kFirstType + "payload"));
    EXPECT_EQ(uuid, written(walk(uuid + kStart).uuidData));
}

TEST(UuidBox, sizesOf64Bits_andASizeThatMeansTheRest) {
    const std::string uuid = box("uuid", kFirstType + "p");
    EXPECT_EQ(uuid, written(walk(largeBox("mdat", "data") + uuid).uuidData));
    EXPECT_EQ(uuid, written(walk(kStart + largeBox("uuid", kFirstType + "p")).uuidData));
    const std::string open = number(0, 4) + "uuid" + kFirstType + "p";
    EXPECT_EQ(uuid, written(walk(kStart + open).uuidData));
}

TEST(UuidBox, sizesThatLie_endTheWalk_andShortBoxesAreNone) {
    const std::string uuid = box("uuid", kFirstType);
    for (const std::string& lie :
         {number(7, 4) + "free", number(1, 4) + "free" + number(15, 8),
          number(1, 4) + "free" + number(UINT64_MAX, 8), number(1 << 30, 4) + "uuid" + kFirstType,
          number(9, 4) + "uui"}) {
        const TopLevelBoxes boxes = walk(uuid + lie);
        EXPECT_EQ(kFirstType, textOf(boxes.uuidData));
        EXPECT_EQ(0, boxes.movieBytes);
    }
    EXPECT_TRUE(walk(box("uuid", "too short") + kStart).uuidData.empty());
    EXPECT_TRUE(makeUuidBoxes(nullptr, 0).empty());
}

}  // namespace qmmediaeditor
}  // namespace android
