#include <gtest/gtest.h>
#include <qmtranscode/cli/Values.h>

namespace android::qmmediaeditor::cli {
namespace {

TEST(Values, parseTime_secondsMinutesAndHours_areMicroseconds) {
    const struct {
        const char* text;
        int64_t us;
    } kCases[] = {{"0", 0},
                  {"2.5", 2500000},
                  {"0.000001", 1},
                  {"90", 90000000},
                  {"1:30", 90000000},
                  {"1:45.25", 105250000},
                  {"1:02:03.004", 3723004000},
                  {"75:00", 4500000000}};
    for (const auto& c : kCases) {
        int64_t us = -1;
        EXPECT_TRUE(parseTime(c.text, &us)) << c.text;
        EXPECT_EQ(c.us, us) << c.text;
    }
}

TEST(Values, parseTime_whatIsNoTime_isRefusedAndLeavesTheOutput) {
    for (const char* text : {"", "x", "-1", "1.", ".5", "1.2345678", "1:60", "1:2:3:4", "1:60:00",
                             "::", "1e3", " 1", "99999999999999999999"}) {
        int64_t us = 7;
        EXPECT_FALSE(parseTime(text, &us)) << text;
        EXPECT_EQ(7, us) << text;
    }
}

TEST(Values, parsePeriod_takesTwoTimesAndNothingElse) {
    TrimPeriod period{};
    ASSERT_TRUE(parsePeriod("1:30-1:45.5", &period));
    EXPECT_EQ(90000000, period.mStartUs);
    EXPECT_EQ(105500000, period.mEndUs);
    for (const char* text : {"5", "5-", "-5", "1-2-3", "a-b"}) {
        EXPECT_FALSE(parsePeriod(text, &period)) << text;
    }
}

TEST(Values, parseBitrate_knowsUnitsAndFractions) {
    int32_t bitrate = 0;
    EXPECT_TRUE(parseBitrate("128k", &bitrate));
    EXPECT_EQ(128000, bitrate);
    EXPECT_TRUE(parseBitrate("1.5M", &bitrate));
    EXPECT_EQ(1500000, bitrate);
    EXPECT_TRUE(parseBitrate("64000", &bitrate));
    EXPECT_EQ(64000, bitrate);
    for (const char* text : {"", "k", "0", "-1k", "4G", "1.2.3M", "2148M", "128 k", "0x10"}) {
        EXPECT_FALSE(parseBitrate(text, &bitrate)) << text;
    }
}

TEST(Values, parseSize_takesTwoNumbers) {
    Size size{};
    ASSERT_TRUE(parseSize("640x360", &size));
    EXPECT_EQ(640, size.width);
    EXPECT_EQ(360, size.height);
    for (const char* text : {"640", "640x", "x360", "640x360x2", "640X360", "-2x2"}) {
        EXPECT_FALSE(parseSize(text, &size)) << text;
    }
}

}  // namespace
}  // namespace android::qmmediaeditor::cli
