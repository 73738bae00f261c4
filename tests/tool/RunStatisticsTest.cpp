#include <gtest/gtest.h>
#include <qmtranscode/monitor/RunStatistics.h>

namespace android::qmmediaeditor::cli {
namespace {

// Two periods of 100 ms, of which the output makes one of 200 ms.
const std::vector<TrimPeriod> kPeriods = {{100000, 200000}, {500000, 600000}};

TEST(RunStatistics, frames_countInTheirPeriodAndAreDroppedForTheRateOnly) {
    RunStatistics statistics(kPeriods);
    for (const int64_t timeUs : {90000, 100000, 110000, 150000, 200000, 500000, 550000, 600000}) {
        statistics.addFrame(timeUs);
    }
    statistics.compareWith({0, 50000, 100000}, 30);
    EXPECT_EQ(1, statistics.periods[0].dropped) << "10 ms after the first one";
    EXPECT_EQ(0, statistics.periods[1].dropped);
    EXPECT_EQ(4, statistics.framesDue) << "the one at 150000 of the output is missing";
    EXPECT_EQ(1, statistics.dropped());
}

TEST(RunStatistics, audio_isLateByWhatItsPredecessorHasTooMuch) {
    RunStatistics statistics(kPeriods);
    statistics.addAudio(50000, 400, 8000);
    statistics.addAudio(100000, 400, 8000);
    statistics.addAudio(150000, 440, 8000);
    statistics.addAudio(500000, 800, 8000);
    EXPECT_EQ(0, statistics.periods[0].audioStartUs);
    EXPECT_EQ(105000, statistics.periods[0].audioEndUs);
    EXPECT_EQ(100000, statistics.periods[1].audioStartUs);
    EXPECT_EQ(5000, statistics.periods[1].skewUs);
}

}  // namespace
}  // namespace android::qmmediaeditor::cli
