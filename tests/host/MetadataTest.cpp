// Metadata of recordings: which texts are taken for a value, and what is read from the user data of
// 3GP files, valid and damaged.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "IoSupport.h"
#include "host/codec/RecordingMetadata.h"

namespace android::qmmediaeditor {
namespace {

using Field = MetadataField;

TEST(MetadataTest, textsAreCleanedAndCut) {
    EXPECT_EQ("a title", cleanMetadata("  a\x1b ti\ntle\x7f  "));
    EXPECT_EQ("before", cleanMetadata(std::string_view("before\0after", 12)));
    EXPECT_EQ("b\xc3\xbc", cleanMetadata("b\xc2\x85\xc3\xbc")) << "C1 control characters";
    EXPECT_EQ("\xe2\x98\x83\xf0\x9f\x98\x80", cleanMetadata("\xe2\x98\x83\xf0\x9f\x98\x80"));
    for (const char* invalid : {"\xff", "a\xc3", "\xc0\x80", "\xe0\x80\x80", "\xed\xa0\x80",
                                "\xf4\x90\x80\x80", "\xe2\x98", "\x80"}) {
        EXPECT_EQ("", cleanMetadata(invalid));
    }
    // No character is cut in two.
    EXPECT_EQ("ab\xc3\xbc", cleanMetadata("ab\xc3\xbc\xc3\xbc", 5));
    EXPECT_EQ(kMaxMetadataBytes, cleanMetadata(std::string(5000, 'x')).size());
}

TEST(MetadataTest, datesAreCheckedAndConvertedToUtc) {
    EXPECT_EQ("2013-11-29T12:19:09Z", creationTimeOf("2013-11-29T13:19:09+0100"));
    EXPECT_EQ("2013-11-29T12:19:09Z", creationTimeOf("2013-11-29T12:19:09.123456Z"));
    EXPECT_EQ("2020-02-29T00:30:00Z", creationTimeOf("2020-02-28 20:00-04:30"));
    EXPECT_EQ("2013-11-29T12:19:09Z", creationTimeOf("2013:11:29 13:19:09+01:00"));
    EXPECT_EQ("2039-12-31T23:59:59Z", creationTimeOf("2039-12-31T23:59:59Z"));
    for (const char* date :
         {"2009", "2009-05", "2009-05-06", "2009-05-06T07:08:09", "1904-01-01T00:00:00Z",
          "1970-01-01T00:00:00Z", "2040-01-01T00:00:00Z"}) {
        EXPECT_TRUE(isDate(date)) << date;
        EXPECT_FALSE(creationTimeOf(date)) << date;
    }
    for (const char* date :
         {"", "today", "0000-00-00", "2021-13-01", "2021-02-29", "2021-1-1", "20210506",
          "2021-05-06T24:00:00Z", "2021-05-06T07:08:09+9900", "2021-05-06T07:08:09Zx",
          "2021-05-06T07:08:09.0000000000000000000000000000000000000Z", "-2021-05-06"}) {
        EXPECT_FALSE(isDate(date)) << date;
    }
}

TEST(MetadataTest, placesAreDegreesInTheirRange) {
    for (const char* place : {"+48.8789+002.3376+048.928/", "-33.8+151.2/", "+00+000", "+90-180/",
                              "+27.5916+086.5640+8850CRSWGS_84/"}) {
        EXPECT_TRUE(isLocation(place)) << place;
    }
    for (const char* place : {"", "48.8789,2.3376", "+91+000/", "+48.8789+181/", "+48.8789/",
                              "+48.8789+2.3x/", "+4852.73+00220.25/", "+48.8789+002.3376/ home"}) {
        EXPECT_FALSE(isLocation(place)) << place;
    }
}

TEST(MetadataTest, languagesAreTheCodesOfMp4) {
    EXPECT_EQ("eng", languageCode("eng"));
    EXPECT_EQ("deu", languageCode("ger"));
    EXPECT_EQ("zho", languageCode("chi"));
    EXPECT_EQ("eng", languageCode("eng,fra"));
    for (const char* none : {"", "und", "en", "english", "EN1", "e\xc3\xbc"})
        EXPECT_EQ("", languageCode(none));
}

TEST(MetadataTest, anOutputGetsWhatItsPolicySays) {
    RecordingMetadata found;
    found.fields = {{Field::kTitle, "title"}, {Field::kLocation, "+00+000/"}};
    EXPECT_EQ(2u, selectMetadata(found, MetadataPolicy::kAll).fields.size());
    EXPECT_EQ(0u, selectMetadata(found, MetadataPolicy::kNone).fields.size());
    EXPECT_EQ(
        0u, selectMetadata(found, MetadataPolicy::kWithoutLocation).fields.count(Field::kLocation));

    SessionMetadata session(MetadataPolicy::kNone);
    session.set(found);
    session.setLanguage(true, "eng");
    EXPECT_TRUE(session.selected().fields.empty());
    EXPECT_EQ("", session.language(true));
}

// The metadata of a file with this user data.
RecordingMetadata read(const std::string& userData) {
    const std::string path =
        makeClip("user-data.mp4", audioInput(1) + " -c:a aac -fflags +bitexact ");
    std::ifstream input(path, std::ios::binary);
    std::string file{std::istreambuf_iterator<char>(input), {}};
    // The movie box is the last one. It gets a second box of user data in front of its own.
    const size_t movie = file.rfind("moov") - 4;
    const std::string content = box("udta", userData) + file.substr(movie + 8);
    const std::string changed = scratchPath("changed.mp4");
    std::ofstream(changed, std::ios::binary) << file.substr(0, movie) << box("moov", content);
    OpenedClip clip(changed);
    EXPECT_EQ(OK, clip.result());
    sp<AMessage> format;
    sp<RefBase> message;
    EXPECT_EQ(OK, clip.extractor().getFileFormat(&format));
    if (format == nullptr || !format->findObject(MetadataMessage::kKey, &message)) {
        ADD_FAILURE() << "no metadata";
        return {};
    }
    return static_cast<MetadataMessage*>(message.get())->content;
}

std::string valueOf(const RecordingMetadata& metadata, Field field) {
    const auto found = metadata.fields.find(field);
    return found == metadata.fields.end() ? "" : found->second;
}

std::string fixed(double value) {
    return number(static_cast<uint32_t>(static_cast<int32_t>(value * 65536)));
}

std::string location(const std::string& name, double latitude, double longitude, double altitude,
                     const std::string& body = "earth") {
    return box("loci", number(0) + number(0x55c4, 2) + name + '\0' + fixed(longitude) +
                           fixed(latitude) + fixed(altitude) + body + std::string(2, '\0'));
}

TEST(UserDataTest, placesOf3gpFilesAreReadWithAllTheirDigits) {
    const std::string noName(1, '\0');
    const auto placeOf = [](const std::string& boxes) {
        return valueOf(read(boxes), Field::kLocation);
    };
    EXPECT_EQ("+48.8789+002.3376+048.928/", placeOf(location(noName, 48.8789, 2.3376, 48.928)));
    EXPECT_EQ("-33.85677-151.2153/",
              placeOf(location(std::string("home") + noName, -33.85678, -151.2153, 0)));
    const std::string wide = "\xfe\xff" + std::string("\0h\0\0", 4);
    EXPECT_EQ("+00.5000+000.0000/", placeOf(location(wide, 0.5, 0, 0, "")));
    EXPECT_EQ("+00.5000+000.0000/", placeOf(location("\xfe\xff" + noName, 0.5, 0, 0)));
    // Exact text goes first.
    const std::string text = "+48.8789+002.3376/";
    EXPECT_EQ(text, placeOf(location(noName, 1, 1, 0) +
                            box("\xa9xyz", number(text.size(), 2) + number(0x15c7, 2) + text)));
    // Other faults in the box make libavformat refuse the file.
    for (const std::string& damaged :
         {location(noName, 91, 2, 0), box("\xa9xyz", number(99, 2)), box("\xa9xyz", "x")}) {
        EXPECT_EQ("", placeOf(damaged));
    }
}

TEST(UserDataTest, textsMayBeUtf16) {
    const auto titleOf = [](const std::string& text) {
        return valueOf(read(box("titl", number(0) + number(0x55c4, 2) + text)), Field::kTitle);
    };
    EXPECT_EQ("T\xc3\xaftle", titleOf("T\xc3\xaftle"));
    EXPECT_EQ("A\xf0\x9f\x98\x80", titleOf(std::string("\xfe\xff\0A\xd8\x3d\xde\0\0\0", 10)));
    EXPECT_EQ("", titleOf(std::string("\xfe\xff\0A\xd8\x3d\0A", 8))) << "half a pair";
    EXPECT_EQ("", titleOf(std::string("\xfe\xff\xd8\x3d", 4)));
    EXPECT_EQ("", titleOf(""));
}

TEST(UserDataTest, theDateOfAFileWithoutATimeGivesItsTime) {
    const RecordingMetadata dated = read(box("date", "2021-05-16T21:27:55+0200"));
    EXPECT_EQ("2021-05-16T21:27:55+0200", valueOf(dated, Field::kDate));
    EXPECT_EQ("2021-05-16T19:27:55Z", valueOf(dated, Field::kCreationTime));
    const RecordingMetadata damaged = read(box("date", "yesterday"));
    EXPECT_TRUE(damaged.fields.empty());
    ASSERT_EQ(1u, damaged.unused.size());
    EXPECT_EQ("date", damaged.unused[0].name);
    EXPECT_EQ(UnusedMetadata::Reason::kMalformed, damaged.unused[0].reason);
}

}  // namespace
}  // namespace android::qmmediaeditor
