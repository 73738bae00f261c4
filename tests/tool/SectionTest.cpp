#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qmtranscode/job/Section.h>
#include <sys/mman.h>
#include <unistd.h>

namespace android::qmmediaeditor::cli {
namespace {

// Of an hour at 29.97 frames per second.
class SectionTest : public testing::Test {
protected:
    SectionTest() {
        input.video = VideoTrack();
        input.video->durationUs = 3600000000;
        input.video->frameRate = 30;
        input.video->constantRate = {30000, 1001};
    }

    SectionPlan plan(int32_t index, int32_t count) const {
        Options own = options;
        own.section = Section{index, count};
        const auto result = planSection(own, kept, input);
        const auto* found = std::get_if<SectionPlan>(&result);
        return found == nullptr ? SectionPlan() : *found;
    }

    Options options;
    KeptPeriods kept;
    MediaFile input;
};

TEST_F(SectionTest, sections_coverTheTimeLine) {
    for (const int32_t count : {1, 2, 7, 100}) {
        int64_t endUs = 0;
        for (int32_t i = 1; i <= count; ++i) {
            const SectionPlan section = plan(i, count);
            EXPECT_EQ(endUs, section.startUs);
            EXPECT_LE(section.encodedFromUs, section.startUs);
            EXPECT_FALSE(section.isEmpty());
            endUs = section.endUs;
        }
        EXPECT_EQ(kEndOfInputUs, endUs);
    }
    EXPECT_TRUE(plan(0, 7).isEmpty());
}

TEST_F(SectionTest, cuts_areAtKeyFrames) {
    // 30 frames take 1.001 s; the cut is just before the frame.
    const SectionPlan section = plan(2, 2);
    EXPECT_EQ(1798 * 1001000 - 1000, section.startUs);
    EXPECT_EQ(1796 * 1001000 - 1000, section.encodedFromUs);
    ASSERT_EQ(1u, section.periods.actual.size());
    EXPECT_EQ(section.encodedFromUs, section.periods.actual[0].mStartUs);
    // Every third frame is kept: ten take 1.001 s.
    options.frameRate = 10;
    EXPECT_EQ(1798 * 1001000 - 1000, plan(2, 2).startUs);
    input.video->constantRate = {};
    EXPECT_TRUE(plan(2, 2).isEmpty());
    options.frameRate.reset();
    EXPECT_EQ(1800 * 1000000LL - 1000, plan(2, 2).startUs);
}

TEST_F(SectionTest, periods_areCutOnTheOutputsTimeLine) {
    input.video->constantRate = {25, 1};
    for (const int64_t startUs : {100000000, 200000000, 300000000}) {
        TrimPeriod period{};
        period.mStartUs = startUs;
        period.mEndUs = startUs + 10000000;
        kept.asked.push_back(period);
        kept.actual.push_back(period);
    }
    const SectionPlan second = plan(2, 2);
    EXPECT_EQ(14999000, second.startUs);
    ASSERT_EQ(2u, second.periods.actual.size());
    EXPECT_EQ(202999000, second.periods.actual[0].mStartUs);
    EXPECT_EQ(210000000, second.periods.actual[0].mEndUs);
    EXPECT_EQ(310000000, second.periods.actual[1].mEndUs);
    const SectionPlan first = plan(1, 2);
    ASSERT_EQ(2u, first.periods.actual.size());
    EXPECT_EQ(204999000, first.periods.actual[1].mEndUs);
    // Shorter than the distance of key frames: all is in the last section.
    kept.actual.resize(1);
    kept.asked.resize(1);
    kept.actual[0].mEndUs = kept.asked[0].mEndUs = 100500000;
    EXPECT_TRUE(plan(1, 2).isEmpty());
    EXPECT_FALSE(plan(2, 2).isEmpty());
}

TEST_F(SectionTest, description_survives) {
    const int file = memfd_create("part", MFD_CLOEXEC);
    EXPECT_FALSE(readDescription(file));
    PartDescription part;
    part.section = {2, 3};
    part.request = "request";
    part.input = "file \"name\".mp4";
    part.startUs = 5000000;
    part.frames = 7;
    part.quality = 23;
    part.frameRate = {24000, 1001};
    ASSERT_EQ(0, writeDescription(file, part));
    const auto found = readDescription(file);
    ASSERT_TRUE(found);
    EXPECT_EQ(2, found->section.index);
    EXPECT_EQ(part.input, found->input);
    EXPECT_EQ(part.startUs, found->startUs);
    EXPECT_EQ(part.quality, found->quality);
    EXPECT_EQ(1001, found->frameRate.denominator);
    // Cut short, and followed by something else.
    ASSERT_EQ(0, ftruncate(file, lseek(file, 0, SEEK_END) - 1));
    EXPECT_FALSE(readDescription(file));
    ASSERT_EQ(0, ftruncate(file, lseek(file, 0, SEEK_END) + 100));
    EXPECT_FALSE(readDescription(file));
    close(file);
}

}  // namespace
}  // namespace android::qmmediaeditor::cli
