// Which decoder may deliver its output next.
#include <atomic>

#include "CodecSupport.h"
#include "host/foundation/TimedWait.h"

namespace android::qmmediaeditor {
namespace {

typedef OutputSequencer::Turn Turn;
typedef OutputSequencer::MemberState MemberState;

class OutputSequencerTest : public ::testing::Test {
protected:
    OutputSequencerTest() { mSequencer->beginSegment(0); }

    Turn turnOf(size_t member) { return mSequencer->waitForTurn(member, deadlineAfter(0)); }
    void publishHead(size_t member, int64_t timeUs, bool inputFull = false) {
        MemberState state;
        state.hasHead = true;
        state.earliestUs = timeUs;
        state.inputFull = inputFull;
        mSequencer->publish(member, state);
    }
    // Audio whose decoder has this inside, and no head.
    void publishAudio(int64_t earliestUs, bool working, bool inputEnded) {
        MemberState state;
        state.earliestUs = earliestUs;
        state.working = working;
        state.inputEnded = inputEnded;
        mSequencer->publish(mAudio, state);
    }

    const sp<OutputSequencer> mSequencer = new OutputSequencer;
    std::atomic<int> mWakes{0};
    const size_t mVideo = mSequencer->join([] {});
    const size_t mAudio = mSequencer->join([this] { ++mWakes; });
};

TEST_F(OutputSequencerTest, theEarlierHeadIsDeliveredFirst) {
    publishHead(mVideo, 2000);
    publishHead(mAudio, 1000);
    EXPECT_EQ(Turn::kYes, turnOf(mAudio));
    EXPECT_EQ(Turn::kOtherFirst, turnOf(mVideo));
    publishHead(mAudio, 2000);
    EXPECT_EQ(Turn::kYes, turnOf(mVideo)) << "equal timestamps do not block each other";
    EXPECT_EQ(Turn::kYes, turnOf(mAudio));
    EXPECT_EQ(Turn::kHeadGone, turnOf(17));
    mSequencer->publish(mVideo, MemberState());
    EXPECT_EQ(Turn::kHeadGone, turnOf(mVideo));
}

TEST_F(OutputSequencerTest, aHeadWaitsForWhatTheOtherDecoderStillHas) {
    publishHead(mVideo, 2000);
    mSequencer->advancePosition(5000);
    EXPECT_EQ(Turn::kYes, turnOf(mVideo)) << "the reader is past the head, and nothing is inside";
    publishAudio(1500, true, false);
    EXPECT_EQ(Turn::kTimedOut, turnOf(mVideo));
    publishAudio(1500, false, false);
    EXPECT_EQ(Turn::kTimedOut, turnOf(mVideo)) << "new input may make it produce this";
    publishAudio(1500, false, true);
    EXPECT_EQ(Turn::kYes, turnOf(mVideo));
    publishAudio(2500, true, false);
    EXPECT_EQ(Turn::kYes, turnOf(mVideo)) << "what is inside is later";
}

TEST_F(OutputSequencerTest, aHeadWaitsForTheReaderUnlessItsOwnInputIsFull) {
    mSequencer->advancePosition(1000);
    publishHead(mVideo, 2000);
    EXPECT_EQ(Turn::kTimedOut, turnOf(mVideo)) << "earlier audio may follow in the file";
    publishHead(mVideo, 2000, true);
    EXPECT_EQ(Turn::kYes, turnOf(mVideo)) << "the reader cannot go on before this is taken";
}

TEST_F(OutputSequencerTest, dueSilenceIsWaitedForAndWakesItsDecoder) {
    MemberState state;
    state.silenceDueUs = 3000;
    state.silenceUntilUs = 9000;
    EXPECT_FALSE(mSequencer->publish(mAudio, state));
    mSequencer->advancePosition(3000);
    EXPECT_EQ(0, mWakes);
    mSequencer->advancePosition(3001);
    EXPECT_EQ(1, mWakes);
    publishHead(mVideo, 2000);
    EXPECT_EQ(Turn::kTimedOut, turnOf(mVideo));
    state.silenceDueUs = 3500;
    EXPECT_FALSE(mSequencer->publish(mAudio, state));
    EXPECT_EQ(Turn::kYes, turnOf(mVideo));
    // Nothing is due behind the end of the track.
    state.silenceDueUs = 9000;
    EXPECT_FALSE(mSequencer->publish(mAudio, state));
    mSequencer->advancePosition(20000);
    EXPECT_FALSE(mSequencer->publish(mAudio, state));
    EXPECT_EQ(1, mWakes);
}

TEST_F(OutputSequencerTest, aSegmentStartsANewPosition) {
    mSequencer->advancePosition(5000);
    const uint32_t number = mSequencer->segment().number;
    mSequencer->beginSegment(-7);
    EXPECT_EQ(number + 1, mSequencer->segment().number);
    EXPECT_EQ(0, mSequencer->segment().startUs);
    mSequencer->advancePosition(100);
    EXPECT_EQ(100, mSequencer->position());
    mSequencer->advancePosition(50);
    EXPECT_EQ(100, mSequencer->position()) << "it never goes back within a segment";
}

}  // namespace
}  // namespace android::qmmediaeditor
