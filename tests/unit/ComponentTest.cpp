// The host's calls, the writer's events, and the ways to stop.
#include <TranscodeComponent.h>
#include <sys/mman.h>
#include <unistd.h>

#include <thread>
#include <tuple>

#include "SessionTest.h"

namespace android::qmmediaeditor {

class ComponentTest : public SessionTest {
protected:
    int32_t process() {
        const int32_t result = mComponent->process();
        awaitEncodersOf(*mComponent->mTranscode);
        return result;
    }

    sp<TranscodeComponent> mComponent = new TranscodeComponent;
};

TEST_F(ComponentTest, processIsRefusedWithoutASessionAndTheRestDoesNothing) {
    const auto expectNothing = [this] {
        EXPECT_EQ(-38, mComponent->process());
        EXPECT_EQ(0, mComponent->cancel());
        EXPECT_EQ(0, mComponent->destory());
        EXPECT_EQ(0, mComponent->clearHandler());
    };
    expectNothing();
    EXPECT_EQ((Lines{"TranscodeComponent: call process", "TranscodeComponent: call cancel"}),
              mJournal.lines());
    mComponent->create(&mRequest);
    EXPECT_EQ(0, mComponent->create(nullptr));
    expectNothing();
    EXPECT_EQ(0u, mJournal.count("platform createWriter")) << "the session before is gone";
}

TEST_F(ComponentTest, trimmingWithoutPeriodsIsRefusedBeforeAnyDecoderStarts) {
    prepareEchoes();
    setPeriods({{0, 1000}});
    mRequest.mPeriods = nullptr;
    mComponent->create(&mRequest);
    mComponent->cancel();
    EXPECT_EQ(-38, mComponent->process()) << "the request is looked at before the stop";
    EXPECT_EQ(0u, mJournal.count("decoder audio/mp4a-latm start"));
}

TEST_F(ComponentTest, aSessionRunsOnceWhateverItsResult) {
    prepareEchoes();
    addSamples(1, 1);
    mComponent->create(&mRequest);
    EXPECT_EQ(0, process());
    mJournal.clear();
    EXPECT_EQ(-38, mComponent->process());
    EXPECT_EQ((std::vector<std::string>{"TranscodeComponent: call process"}), mJournal.lines());

    EXPECT_EQ(-1, mRequest.mOutputFd) << "a retry must not write to what has that number by now";
    mPlatform.extractor().fail("selectTrack", -1);
    renewOutput();
    mComponent->create(&mRequest);
    EXPECT_EQ(-38, mComponent->process()) << "every failure to set up is an invalid request";
    mPlatform.extractor().fail("selectTrack", 0);
    renewOutput();
    EXPECT_EQ(-38, mComponent->process()) << "a refused session is used up as well";
    EXPECT_EQ(1u, mJournal.count("extractor setDataSource 0 4000000"));
}

TEST_F(ComponentTest, creatingAgainAndEachWayToEndDeleteTheSession) {
    const std::string gone = "Transcode: Decontructor ~Transcode end";
    mComponent->create(&mRequest);
    mComponent->create(&mRequest);
    EXPECT_EQ(1u, mJournal.count(gone));
    mComponent->destory();
    mComponent->destory();
    EXPECT_EQ(2u, mJournal.count(gone));
    mComponent->create(&mRequest);
    mComponent->clearHandler();
    EXPECT_EQ(3u, mJournal.count(gone));
    mComponent->create(&mRequest);
    mComponent.clear();
    EXPECT_EQ(4u, mJournal.count(gone));
}

TEST_F(ComponentTest, nothingMayEndASessionWhileItRuns) {
    prepareEchoes();
    mPlatform.extractor().addSample({1, 5000000, std::vector<uint8_t>(kFrameBytes)});
    const std::string message = "create, destory or clearHandler called while process runs";
    mRequest.mProgressCallback = [&](int32_t percent) {
        if (percent == 0) {
            EXPECT_FATAL(mComponent->create(&mRequest), message);
            EXPECT_FATAL(mComponent->destory(), message);
            EXPECT_FATAL(mComponent->clearHandler(), message);
        } else {
            // In the input reader. The failed check ends the thread that it is on.
            std::thread([&] { mComponent->destory(); }).join();
        }
    };
    mComponent->create(&mRequest);
    EXPECT_EQ(0, process());
    EXPECT_EQ((std::vector<std::string>{message}), mTrap.elsewhere());
    EXPECT_EQ(4u, mJournal.count("TranscodeComponent: " + message)) << "one line for each";
    EXPECT_EQ(0, mComponent->destory()) << "the run is over";
}

TEST_F(ComponentTest, theWritersErrorsAndLimitsStopTheSessionAndOtherEventsAreOnlyLogged) {
    const std::tuple<int, int, bool> table[] = {{1, 0, true},    {2, 800, true},  {2, 801, true},
                                                {2, 799, false}, {2, 802, false}, {3, 801, false}};
    for (const auto& [msg, ext1, stops] : table) {
        mPlatform.extractor().addTrack(audioFormat());
        renewSession();
        mJournal.clear();
        prepareLoop();
        for (int i = 0; i < 2; ++i) session().mListener->notify(msg, ext1, 7);
        const std::string values = std::to_string(msg) + ", " + std::to_string(ext1) + ", 7";
        EXPECT_TRUE(logged(ANDROID_LOG_DEBUG, "TranscodeListener notify " + values));
        EXPECT_EQ(stops, session().mForceStop) << values;
        EXPECT_EQ(stops ? 1u : 0u, mJournal.count("TAudioSource: setCodecStopped")) << values;
    }
}

}  // namespace android::qmmediaeditor
