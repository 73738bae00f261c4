// Mistakes of a host with the component: each ends with an error, or with an abort with one line.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <host/Host.h>
#include <support/SessionRun.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <stdexcept>

namespace android::qmmediaeditor {
namespace {

const char* const kClip = QM_CLIPS_DIR "/steps.mp4";

// A session of one second whose request a test spoils.
class MisuseTest : public testing::Test {
protected:
    MisuseTest() {
        mProperty.mInputFd = open(kClip, O_RDONLY | O_CLOEXEC);
        mProperty.mOutputFd = mOutput.open();
        mProperty.mProgressCallback = [](int32_t) {};
        mProperty.mTrimEnabled = true;
        mProperty.mPeriodCount = 1;
        mProperty.mPeriods = mPeriods;
    }
    ~MisuseTest() override {
        mComponent->destory();
        if (mProperty.mInputFd >= 0) close(mProperty.mInputFd);
    }

    // The platform is released before process() uses it.
    int32_t run() {
        mComponent->create(&mProperty, createHostPlatform(HostOptions()));
        return mComponent->process();
    }
    // Puts another descriptor in the place of the input.
    void useInput(int fd) {
        close(mProperty.mInputFd);
        mProperty.mInputFd = fd;
    }
    void useOutput(int fd) {
        close(mProperty.mOutputFd);
        mProperty.mOutputFd = fd;
    }

    const TrimPeriod mPeriods[2] = {{2000000, 3000000}, {0, 1000000}};
    const TemporaryFile mOutput;
    TranscodeProperty mProperty;
    sp<TranscodeComponent> mComponent = new TranscodeComponent;
};

TEST_F(MisuseTest, noRequest_isRefusedAndCancelHasNoEffect) {
    EXPECT_EQ(OK, mComponent->cancel());
    EXPECT_EQ(kInvalidRequest, mComponent->process());
    mComponent->create(nullptr);
    EXPECT_EQ(OK, mComponent->cancel());
    EXPECT_EQ(kInvalidRequest, mComponent->process());
    close(mProperty.mOutputFd);
}

TEST_F(MisuseTest, descriptorsThatCannotBeUsed_areRefused) {
    const int closed = fcntl(mProperty.mOutputFd, F_DUPFD_CLOEXEC, 500);
    close(closed);
    for (const int none : {-1, closed}) {
        useOutput(none);
        EXPECT_EQ(kInvalidRequest, run());
    }
    useOutput(open(mOutput.path().c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(kInvalidRequest, run());
    mProperty.mOutputFd = mOutput.open();
    for (const int none : {-1, closed}) {
        useInput(none);
        EXPECT_EQ(kInvalidRequest, run());
        mProperty.mOutputFd = mOutput.open();
    }
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    useInput(ends[0]);
    EXPECT_EQ(kInvalidRequest, run());
    close(ends[1]);
    mProperty.mOutputFd = mOutput.open();
    useInput(open(kClip, O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(kInvalidRequest, run());
}

TEST_F(MisuseTest, aSecondProcess_isRefused) {
    EXPECT_EQ(OK, run());
    EXPECT_EQ(kInvalidRequest, mComponent->process());
}

TEST_F(MisuseTest, processOnTwoThreads_isRefusedForTheSecond) {
    std::atomic<int32_t> second{OK};
    mProperty.mProgressCallback = [&](int32_t) {
        if (second == OK) second = mComponent->process();
    };
    EXPECT_EQ(OK, run());
    EXPECT_EQ(kInvalidRequest, second);
}

TEST_F(MisuseTest, cancelBeforeProcess_stopsAtItsBeginning) {
    mComponent->create(&mProperty, createHostPlatform(HostOptions()));
    mComponent->cancel();
    EXPECT_EQ(kStopped, mComponent->process());
}

TEST_F(MisuseTest, periodsOutOfOrder_giveNothingBeyondTheEndOfTheLastOne) {
    mProperty.mPeriodCount = 2;
    EXPECT_EQ(OK, run());
    constexpr int64_t kBytesWithoutSamples = 500;
    EXPECT_LT(mOutput.sizeBytes(), kBytesWithoutSamples);
}

TEST_F(MisuseTest, aPeriodThatEndsBeforeItsStart_isRefused) {
    const TrimPeriod backwards{2000000, 1000000};
    mProperty.mPeriods = &backwards;
    EXPECT_EQ(kInvalidRequest, run());
    mProperty.mPeriods = nullptr;
    mProperty.mOutputFd = mOutput.open();
    EXPECT_EQ(kInvalidRequest, run());
}

typedef MisuseTest MisuseDeathTest;

TEST_F(MisuseDeathTest, anEmptyCallback_aborts) {
    mProperty.mProgressCallback = nullptr;
    EXPECT_DEATH(run(), "the progress callback is empty");
    close(mProperty.mOutputFd);
}

TEST_F(MisuseDeathTest, aCallbackThatThrows_aborts) {
    mProperty.mProgressCallback = [](int32_t) { throw std::out_of_range("of the host"); };
    EXPECT_DEATH(run(), "the progress callback threw an exception");
    close(mProperty.mOutputFd);
}

TEST_F(MisuseDeathTest, destroyInTheCallback_aborts) {
    mProperty.mProgressCallback = [this](int32_t) { mComponent->destory(); };
    EXPECT_DEATH(run(), "create, destory or clearHandler called while process runs");
    close(mProperty.mOutputFd);
}

TEST_F(MisuseDeathTest, noPlatform_aborts) {
    mComponent->create(&mProperty);
    EXPECT_DEATH(mComponent->process(), "no platform is installed");
    close(mProperty.mOutputFd);
}

}  // namespace
}  // namespace android::qmmediaeditor
