// The walk over boxes: which sample tables are refused by their number of samples, wherever
// libavformat would look for them, and the uuid boxes, on valid and on damaged files.
#include <gtest/gtest.h>

#include <string>

#include "IoSupport.h"
#include "host/io/IsoBoxes.h"

namespace android::qmmediaeditor {
namespace {

constexpr uint32_t kMany = 85000000;
const std::string kType = "0123456789abcdef";

std::string number(uint64_t value, int bytes = 4) {
    std::string result;
    for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8) {
        result.push_back(static_cast<char>(value >> shift));
    }
    return result;
}

std::string boxOfSize(uint64_t size, const std::string& type, const std::string& content) {
    return number(size) + type + content;
}

std::string box(const std::string& type, const std::string& content) {
    return boxOfSize(content.size() + 8, type, content);
}

std::string largeBox(const std::string& type, const std::string& content) {
    return boxOfSize(1, type, number(content.size() + 16, 8) + content);
}

std::string inside(const std::initializer_list<std::string>& path, std::string content) {
    for (auto type = std::rbegin(path); type != std::rend(path); ++type) {
        content = box(*type, content);
    }
    return content;
}

std::string sizes(uint32_t count) { return box("stsz", number(0) + number(0) + number(count)); }

std::string inTable(const std::string& table) {
    return inside({"moov", "trak", "mdia", "minf", "stbl"}, table);
}

std::string inFragment(uint32_t count) {
    return inside({"moof", "traf"}, box("trun", number(0) + number(count)));
}

std::shared_ptr<DescriptorFile> opened(const std::string& bytes) {
    const int fd = memoryFile(bytes);
    const auto file = DescriptorFile::openForReading(fd, 0, INT64_MAX / 2).file;
    close(fd);
    return file;
}

bool isRefused(const std::string& boxes, size_t mediaBytes = 1000) {
    return checkSampleTables(*opened(box("ftyp", "isom" + number(0)) +
                                     box("mdat", std::string(mediaBytes, 0)) + boxes))
        .has_value();
}

TEST(SampleTablesTest, allTablesOfAKindAreLimitedByTheBytesOfTheFile) {
    EXPECT_FALSE(isRefused(inTable(sizes(999))));
    EXPECT_FALSE(isRefused(inTable(sizes(kMany)), kMany));
    EXPECT_FALSE(isRefused(inFragment(999)));
    EXPECT_TRUE(isRefused(inTable(sizes(900)) + inTable(sizes(900))));
    EXPECT_TRUE(isRefused(inFragment(900) + inFragment(900)));
    // A sample has an entry in several kinds of tables.
    for (const char* type : {"stts", "ctts"}) {
        const std::string times = box(type, number(0) + number(1) + number(899) + number(512));
        EXPECT_FALSE(isRefused(inTable(sizes(900)) + inTable(times) + inFragment(900))) << type;
        EXPECT_TRUE(isRefused(inTable(times) + inTable(times))) << type;
    }
}

TEST(SampleTablesTest, tablesAreFoundWhereverTheyAre) {
    // A box without a size, or with one beyond its parent, ends with it.
    const std::string content = sizes(kMany).substr(8);
    EXPECT_TRUE(isRefused(inTable(boxOfSize(0, "stsz", content))));
    EXPECT_TRUE(isRefused(inTable(boxOfSize(0x7fffffff, "stsz", content))));
    EXPECT_TRUE(isRefused(boxOfSize(0, "moov", inside({"trak", "mdia"}, sizes(kMany)))));
    EXPECT_TRUE(isRefused(largeBox("moov", sizes(kMany))));
    for (const char* type : {"free", "hoov"}) {
        EXPECT_TRUE(isRefused(box(type, box("mvhd", "") + sizes(kMany)))) << type;
        EXPECT_FALSE(isRefused(box(type, box("skip", "") + sizes(kMany)))) << type;
    }
    EXPECT_FALSE(isRefused(box("mdat", inTable(sizes(kMany)))));
}

TEST(SampleTablesTest, damagedFilesAreNotRefused) {
    EXPECT_FALSE(isRefused(boxOfSize(3, "moov", sizes(kMany))));
    EXPECT_FALSE(isRefused(inTable(box("stsz", "")) + inTable(box("stts", number(0)))));
    EXPECT_FALSE(isRefused(inTable(box("stts", number(0) + number(0xffffffff) + number(1)))));
    std::string deep = sizes(kMany);
    for (int i = 0; i < 10000; ++i) deep = box("trak", deep);
    EXPECT_FALSE(isRefused(box("moov", deep)));
}

std::string textOf(const std::vector<uint8_t>& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

// The uuid boxes of an output whose input has these boxes.
std::string copied(const std::string& boxes) {
    const std::vector<uint8_t> data = readTopLevelBoxes(*opened(boxes)).uuidData;
    return textOf(makeUuidBoxes(data.data(), data.size()));
}

TEST(UuidBoxTest, boxesAreCopiedAndOneBoxIsPassedOnAsTypeAndPayload) {
    const std::string start = box("ftyp", "isom") + box("moov", "movie");
    const std::string uuid = box("uuid", kType + "payload");
    const TopLevelBoxes boxes = readTopLevelBoxes(*opened(start + uuid + box("mdat", "uuid")));
    EXPECT_EQ(kType + "payload", textOf(boxes.uuidData));
    EXPECT_EQ(12, boxes.movieOffset);
    EXPECT_EQ(13, boxes.movieBytes);

    EXPECT_EQ(uuid, copied(uuid + start));
    const std::string second = box("uuid", "ABCDEF9876543210");
    EXPECT_EQ(uuid + second, copied(uuid + start + second));
    const std::string nested = box("uuid", uuid);
    EXPECT_EQ(nested, copied(nested + start));
    EXPECT_EQ(uuid, copied(largeBox("mdat", "data") + uuid));
    EXPECT_EQ(uuid, copied(start + largeBox("uuid", kType + "payload")));
    EXPECT_EQ(uuid, copied(start + boxOfSize(0, "uuid", kType + "payload")));
    EXPECT_EQ("", copied(box("uuid", "too short") + start));
}

TEST(UuidBoxTest, wrongSizesEndTheWalk) {
    const std::string uuid = box("uuid", kType);
    for (const std::string& lie : {boxOfSize(7, "free", ""), boxOfSize(1, "free", number(15, 8)),
                                   boxOfSize(1, "free", number(UINT64_MAX, 8)),
                                   boxOfSize(1 << 30, "uuid", kType), boxOfSize(9, "uui", "")}) {
        EXPECT_EQ(uuid, copied(uuid + lie));
    }
}

}  // namespace
}  // namespace android::qmmediaeditor
