// Which sample tables are refused: by what they name, wherever libavformat would look for them.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "host/io/DescriptorFile.h"
#include "host/io/IsoBoxes.h"

namespace android {
namespace qmmediaeditor {
namespace {

constexpr uint32_t kMany = 85000000;

std::string number(uint32_t value) {
    std::string result;
    for (int shift = 24; shift >= 0; shift -= 8)
        result.push_back(static_cast<char>(value >> shift));
    return result;
}

std::string boxOfSize(uint32_t size, const std::string& type, const std::string& content) {
    return number(size) + type + content;
}

std::string box(const std::string& type, const std::string& content) {
    return boxOfSize(static_cast<uint32_t>(content.size() + 8), type, content);
}

std::string inside(const std::initializer_list<std::string>& path, std::string content) {
    for (auto type = std::rbegin(path); type != std::rend(path); ++type) {
        content = box(*type, content);
    }
    return content;
}

std::string sizes(uint32_t count) { return box("stsz", number(0) + number(0) + number(count)); }

std::string times(const std::string& type, uint32_t count) {
    return box(type, number(0) + number(2) + number(1) + number(512) + number(count) + number(512));
}

std::string inTable(const std::string& table) {
    return inside({"moov", "trak", "mdia", "minf", "stbl"}, table);
}

std::string inFragment(uint32_t count) {
    return inside({"moof", "traf"}, box("trun", number(0) + number(count)));
}

std::optional<std::string> check(const std::string& boxes, size_t mediaBytes = 1000) {
    const std::string bytes =
        box("ftyp", "isom" + number(0)) + box("mdat", std::string(mediaBytes, 0)) + boxes;
    const int fd = memfd_create("boxes", MFD_CLOEXEC);
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(fd, bytes.data(), bytes.size()));
    const auto file = DescriptorFile::openForReading(fd, 0, INT64_MAX / 2).file;
    close(fd);
    return checkSampleTables(*file);
}

TEST(SampleTablesTest, eachKindOfTableIsLimitedByTheBytesOfTheFile) {
    for (const char* type : {"stts", "ctts"}) {
        EXPECT_FALSE(check(inTable(times(type, 999)))) << type;
        const auto reason = check(inTable(times(type, kMany)));
        ASSERT_TRUE(reason) << type;
        EXPECT_NE(std::string::npos, reason->find(type)) << *reason;
        EXPECT_NE(std::string::npos, reason->find("85000001 samples")) << *reason;
    }
    EXPECT_FALSE(check(inTable(sizes(999))));
    EXPECT_TRUE(check(inTable(sizes(kMany))));
    EXPECT_FALSE(check(inTable(sizes(kMany)), kMany));
    EXPECT_TRUE(check(inTable(box("stz2", number(0) + number(4) + number(kMany)))));
    EXPECT_FALSE(check(inFragment(999)));
    EXPECT_TRUE(check(inFragment(kMany)));
}

TEST(SampleTablesTest, tablesOfAllTracksAndFragmentsAddUp) {
    EXPECT_TRUE(check(inTable(sizes(900)) + inTable(sizes(900))));
    EXPECT_TRUE(check(inFragment(900) + inFragment(900)));
    // A sample has an entry in several kinds of tables.
    EXPECT_FALSE(check(inTable(sizes(900)) + inTable(times("stts", 899)) + inFragment(900)));
}

TEST(SampleTablesTest, noPlaceHidesATable) {
    // A box without a size, or with one beyond its parent, ends with it.
    const std::string content = sizes(kMany).substr(8);
    EXPECT_TRUE(check(inTable(boxOfSize(0, "stsz", content))));
    EXPECT_TRUE(check(inTable(boxOfSize(0x7fffffff, "stsz", content))));
    EXPECT_TRUE(check(boxOfSize(0, "moov", inside({"trak", "mdia"}, sizes(kMany)))));
    EXPECT_TRUE(check(boxOfSize(1, "moov", number(0) + number(16 + 20) + sizes(kMany))));
    EXPECT_TRUE(check(inside({"moov"}, sizes(kMany))));
    for (const char* type : {"free", "hoov"}) {
        EXPECT_TRUE(check(box(type, box("mvhd", "") + sizes(kMany)))) << type;
        EXPECT_FALSE(check(box(type, box("skip", "") + sizes(kMany)))) << type;
    }
    EXPECT_TRUE(check(inside({"moov"}, box("cmov", box("dcom", "zlib")))));
    EXPECT_FALSE(check(box("mdat", inTable(sizes(kMany)))));
}

TEST(SampleTablesTest, damagedFilesPass) {
    EXPECT_FALSE(check(boxOfSize(3, "moov", sizes(kMany))));
    EXPECT_FALSE(check(inTable(box("stsz", "")) + inTable(box("stts", number(0)))));
    EXPECT_FALSE(check(inTable(box("stts", number(0) + number(0xffffffff) + number(1)))));
    std::string deep = sizes(kMany);
    for (int i = 0; i < 10000; ++i) deep = box("trak", deep);
    EXPECT_FALSE(check(box("moov", deep)));
}

}  // namespace
}  // namespace qmmediaeditor
}  // namespace android
