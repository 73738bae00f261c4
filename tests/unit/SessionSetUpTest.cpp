// Construction, module creation and the order in which a session is taken apart.
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <future>

#include "SessionTest.h"

namespace android::qmmediaeditor {

class SessionSetUpTest : public SessionTest {
protected:
    static bool isOpen(int fd) { return fcntl(fd, F_GETFD) >= 0; }
    // Opened again, the file gets a descriptor with flags of its own.
    static std::string reopened(int fd) { return "/proc/self/fd/" + std::to_string(fd); }
    // The kernel's name of the looper's thread, and its priority.
    static std::string threadOf(const sp<ALooper>& looper) {
        std::promise<std::string> name;
        looper->post([&name] {
            char text[16];
            pthread_getname_np(pthread_self(), text, sizeof(text));
            name.set_value(text + (" at " + std::to_string(SystemCalls::priorityOfThisThread())));
        });
        return name.get_future().get();
    }
};

TEST_F(SessionSetUpTest, moduleCreationTakesTheOutputAndMeasuresTheInput) {
    prepareEchoes();
    const int output = mRequest.mOutputFd;
    EXPECT_EQ(0, session().createModule());
    EXPECT_FALSE(isOpen(output));
    EXPECT_EQ(-1, mRequest.mOutputFd);
    EXPECT_EQ(1u, mJournal.count("platform createWriter"));
    EXPECT_EQ(kInputBytes, lseek(mRequest.mInputFd, 0, SEEK_CUR));
    EXPECT_EQ(1u, mJournal.count("extractor setDataSource 0 4000000"));
    EXPECT_EQ("T_Audio-Decoder at -16", threadOf(session().mAudioDecoderLooper));
    EXPECT_EQ("T_Video-Decoder at -16", threadOf(session().mVideoDecoderLooper));
}

TEST_F(SessionSetUpTest, inputsThatCannotBeUsedAreRefusedWithTheOutputClosed) {
    const auto expectRefused = [this](const char* message) {
        mSession.reset();
        renewOutput();
        const int output = mRequest.mOutputFd;
        EXPECT_EQ(-38, session().createModule()) << message;
        EXPECT_TRUE(logged(ANDROID_LOG_ERROR, message)) << message;
        EXPECT_FALSE(isOpen(output)) << message;
        EXPECT_EQ(-1, mRequest.mOutputFd) << message;
    };
    expectRefused("Track is not exist");
    mPlatform.extractor().fail("setDataSource", -1010);
    expectRefused("unable to instantiate extractor.");
    EXPECT_EQ(0, ftruncate(mRequest.mInputFd, 0));
    expectRefused("input file one size is zero");
    close(std::exchange(mRequest.mInputFd, -1));
    expectRefused("input file one size is zero");
}

TEST_F(SessionSetUpTest, outputsThatCannotBeWrittenAreRefusedAndClosedBeforeThereIsAWriter) {
    prepareEchoes();
    const std::string path = reopened(mRequest.mOutputFd);
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    const std::pair<const char*, int> table[] = {
        {"it is not open", -1},
        {"it is not open for writing", open(path.c_str(), O_RDONLY)},
        {"it is not open for writing", open(path.c_str(), O_PATH)},
        {"it is in append mode", open(path.c_str(), O_WRONLY | O_APPEND)},
        {"it is not a regular file", ends[1]},
        {"it is not a regular file", open("/dev/null", O_WRONLY)},
        {"it is the input", open(reopened(mRequest.mInputFd).c_str(), O_WRONLY)},
    };
    const int unused = mRequest.mOutputFd;
    for (const auto& [reason, fd] : table) {
        mSession.reset();
        mRequest.mOutputFd = fd;
        EXPECT_EQ(-38, session().createModule()) << reason;
        EXPECT_TRUE(logged(ANDROID_LOG_ERROR, "output descriptor " + std::to_string(fd) +
                                                  " cannot be used: " + reason));
        EXPECT_FALSE(isOpen(fd)) << reason;
        EXPECT_EQ(-1, mRequest.mOutputFd) << reason;
    }
    EXPECT_EQ(0u, mJournal.count("platform createWriter"));
    EXPECT_EQ(0, lseek(mRequest.mInputFd, 0, SEEK_CUR)) << "the input was not looked at either";
    close(ends[0]);

    mSession.reset();
    mRequest.mOutputFd = open(path.c_str(), O_WRONLY);
    EXPECT_EQ(0, session().createModule()) << "reading back is not needed";
    close(unused);
}

TEST_F(SessionSetUpTest, oneDescriptorAsInputAndOutputIsRefusedAndStaysTheHosts) {
    prepareEchoes();
    close(mRequest.mOutputFd);
    mRequest.mOutputFd = mRequest.mInputFd;
    EXPECT_EQ(-38, session().createModule());
    EXPECT_EQ(-1, mRequest.mOutputFd);
    EXPECT_TRUE(isOpen(mRequest.mInputFd));
}

TEST_F(SessionSetUpTest, teardownGoesWriterDecodersSourcesAndLeavesNothingBehind) {
    prepareEchoes();
    addSamples(3, 3);
    EXPECT_EQ(0, run());
    wp<TAudioSource> audio = session().mAudioSource;
    wp<TVideoSource> video = session().mVideoSource;
    wp<ALooper> audioLooper = session().mAudioDecoderLooper;
    wp<ALooper> videoLooper = session().mVideoDecoderLooper;
    wp<MetaData> fileMeta = session().mFileMeta;
    awaitEncoders();
    mPlatform.letGoOfWriter();
    mJournal.clear();
    mSession.reset();
    // The messages of the sources are compared by the golden run.
    expectOrder({"Transcode: Decontructor ~Transcode start", "writer destroyed",
                 "decoder audio/mp4a-latm stop", "decoder audio/mp4a-latm release",
                 "decoder video/avc stop", "decoder video/avc release",
                 "AudioEncoderThread: Decontructor MediaEncoderThread",
                 "TAudioSource: Decontructor TAudioSource end",
                 "VideoEncoderThread: Decontructor MediaEncoderThread",
                 "TVideoSource: Decontructor TVideoSource end",
                 "Transcode: Decontructor ~Transcode end"});
    EXPECT_TRUE(audio.promote() == nullptr && video.promote() == nullptr);
    EXPECT_TRUE(audioLooper.promote() == nullptr && videoLooper.promote() == nullptr);
    EXPECT_EQ(nullptr, fileMeta.promote());
    for (const auto* codec : {&mAudioDecoder, &mVideoDecoder, &mAudioEncoder, &mVideoEncoder}) {
        EXPECT_EQ(1, (*codec)->getStrongCount()) << "the test's own";
    }
}

}  // namespace android::qmmediaeditor
