#include <gtest/gtest.h>
#include <qmtranscode/cli/Values.h>

namespace android::qmmediaeditor::cli {
namespace {

template <typename Parse>
void expectRefused(const Parse& parse, const std::vector<const char*>& texts) {
    for (const char* text : texts) EXPECT_FALSE(parse(text)) << text;
}

TEST(Values, parseTimeUs_takesSecondsMinutesAndHours) {
    const std::pair<const char*, int64_t> kCases[] = {{"0", 0},
                                                      {"2.5", 2500000},
                                                      {"0.000001", 1},
                                                      {"90", 90000000},
                                                      {"1:30", 90000000},
                                                      {"1:45.25", 105250000},
                                                      {"75:00", 4500000000},
                                                      {"1:02:03.004", 3723004000}};
    for (const auto& [text, us] : kCases) EXPECT_EQ(us, parseTimeUs(text)) << text;
    expectRefused(parseTimeUs, {"", "x", "-1", "+1", "1.", ".5", "1.2345678", "1.-5", "1:60",
                                "1:2:3:4", "1:60:00", "::", "1e3", " 1", "99999999999999999999"});
}

TEST(Values, parsePeriod_takesTwoTimes) {
    const std::optional<TrimPeriod> period = parsePeriod("1:30-1:45.5");
    ASSERT_TRUE(period);
    EXPECT_EQ(90000000, period->mStartUs);
    EXPECT_EQ(105500000, period->mEndUs);
    EXPECT_EQ(kEndOfInputUs, parsePeriod("5-")->mEndUs);
    expectRefused(parsePeriod, {"5", "-5", "1-2-3", "a-b"});
}

TEST(Values, parseLevel_takesASignAndAUnit) {
    EXPECT_EQ(-3, parseLevel("-3dB", "dB"));
    EXPECT_EQ(1.5, parseLevel("+1.5 db", "dB"));
    EXPECT_EQ(-16, parseLevel("-16", "LUFS"));
    expectRefused(
        [](const char* text) { return parseLevel(text, "dB"); },
        {"", "dB", "-", "--3", "+-3", "3 dBx", "3 LUFS", "1e3", "inf", "-nan", "3  dB", "3 "});
}

TEST(Values, parseBitrate_takesUnitsAndFractions) {
    EXPECT_EQ(128000, parseBitrate("128k"));
    EXPECT_EQ(1500000, parseBitrate("1.5M"));
    EXPECT_EQ(64000, parseBitrate("64000"));
    expectRefused(parseBitrate, {"", "k", "0", "999", "-1k", "4G", "1.2.3M", "2148M", "128 k",
                                 "0x10", "1e6", "inf", "nank"});
}

TEST(Values, parseSize_takesTwoIntegers) {
    const std::optional<Size> size = parseSize("640x360");
    ASSERT_TRUE(size);
    EXPECT_EQ(640, size->width);
    EXPECT_EQ(360, size->height);
    expectRefused(parseSize, {"640", "640x", "x360", "640x360x2", "640X360", "-2x2"});
}

}  // namespace
}  // namespace android::qmmediaeditor::cli
