// The walk over boxes: which sample tables are refused by their number of samples, wherever
// libavformat would look for them, and the uuid boxes, on valid and on damaged files.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "IoSupport.h"
#include "host/io/IsoBoxes.h"

namespace android::qmmediaeditor {
namespace {

constexpr uint32_t kMany = 85000000;
const std::string kType = "0123456789abcdef";

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

const std::string kXmpType = "\xbe\x7a\xcf\xcb\x97\xa9\x42\xe8\x9c\x71\x99\x94\x91\xe3\xaf\xac";

std::string utf16(const std::string& text) {
    std::string wide;
    for (const char c : text) wide += std::string(1, '\0') + c;
    return wide;
}

// Of the file with this uuid box and another one, with XMP that has a location left out.
TopLevelBoxes withoutLocations(const std::string& content) {
    return readTopLevelBoxes(*opened(box("uuid", content) + box("uuid", kType + "other")),
                             XmpLocations::kLeaveOut);
}

TEST(UuidBoxTest, xmpWithALocationIsLeftOutWhereThatIsAskedFor) {
    const std::string filler(64 * 1024 - 4, ' ');
    for (const std::string& content :
         {kXmpType + "<x exif:GPSAltitude='1'/>", kType + "<x exif:GPSLatitude='1'/>",
          kXmpType + utf16("<x exif:GPSLatitude='1'/>"), kXmpType + "<e:GPSLongitude>",
          kXmpType + "<GPSLatitude>", kXmpType + "<x\nGPSDestLatitude='1'/>",
          kXmpType + filler + "exif:GPSLatitude"}) {
        const TopLevelBoxes boxes = withoutLocations(content);
        EXPECT_EQ(1u, boxes.locatedTypes.size()) << content;
        EXPECT_EQ(kType + "other", textOf(boxes.uuidData)) << content;
        const std::string both = box("uuid", content) + box("uuid", kType + "other");
        EXPECT_EQ(both, copied(both));
    }
    EXPECT_EQ("be7acfcb97a942e89c71999491e3afac",
              withoutLocations(kXmpType + "exif:GPSx").locatedTypes.front());
    for (const std::string& content :
         {kXmpType + "<x>the GPS</x>", kXmpType + "<x exif:Flash='1'/>", kXmpType,
          kType + "<GPSLatitude>"}) {
        EXPECT_TRUE(withoutLocations(content).locatedTypes.empty()) << content;
    }
}

TEST(UserDataTest, theBoxesOfTheMovieAreReadUnlessTheyAreLarge) {
    const std::string file =
        box("ftyp", "isom") +
        box("moov", box("mvhd", "") +
                        box("udta", box("titl", "a title") + box("thmb", std::string(5000, 'x')) +
                                        box("none", "") + boxOfSize(99, "lie!", "")));
    const std::vector<UserDataBox> boxes = readUserData(*opened(file), 12);
    ASSERT_EQ(2u, boxes.size());
    EXPECT_EQ("a title", textOf(boxes[0].payload));
    EXPECT_EQ(0u, boxes[1].payload.size());
    EXPECT_TRUE(readUserData(*opened(box("moov", "")), 0).empty());
}

// The file after replaceUserData().
std::pair<status_t, std::string> replaced(const std::string& file, const std::string& boxes) {
    const int fd = memoryFile(file);
    const auto output = DescriptorFile::openForWriting(fd).file;
    EXPECT_TRUE(output->makeReadable());
    output->writeAt(0, file.data(), file.size());
    const status_t status =
        replaceUserData(output.get(), std::vector<uint8_t>(boxes.begin(), boxes.end()));
    std::string content(file.size(), 0);
    EXPECT_EQ(static_cast<ssize_t>(file.size()), pread(fd, content.data(), content.size(), 0));
    close(fd);
    return {status, content};
}

TEST(UserDataTest, theRestOfTheReplacedBoxIsFree) {
    const auto inMovie = [](const std::string& boxes) {
        return box("moov", box("mvhd", "x") + boxes) + box("uuid", kType);
    };
    const std::string place = box("udta", std::string(22, '.'));
    const std::string smaller = box("udta", "ab") + box("meta", "");
    const std::string filled = inMovie(smaller + box("free", std::string(4, 0)));
    EXPECT_EQ(std::make_pair(status_t{OK}, filled), replaced(inMovie(place), smaller));
    const std::string same = box("udta", std::string(22, 's'));
    EXPECT_EQ(std::make_pair(status_t{OK}, inMovie(same)), replaced(inMovie(place), same));

    for (const std::string& boxes :
         {box("udta", std::string(23, 'x')), box("udta", std::string(15, 'x'))}) {
        EXPECT_EQ(std::make_pair(status_t{BAD_VALUE}, inMovie(place)),
                  replaced(inMovie(place), boxes));
    }
    const std::string notLast = inMovie(place + box("trak", ""));
    EXPECT_EQ(std::make_pair(status_t{BAD_VALUE}, notLast), replaced(notLast, smaller));
    EXPECT_EQ(BAD_VALUE, replaced(box("mdat", place), smaller).first);
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
