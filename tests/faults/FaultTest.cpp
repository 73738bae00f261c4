// How sessions end in which one thing goes wrong.
//
// Each test goes through a table of faults of one kind, on each of the runs in kKinds.
#include <faults/FaultPlatform.h>
#include <gtest/gtest.h>
#include <host/Host.h>
#include <host/io/DescriptorFile.h>
#include <host/io/IsoBoxes.h>
#include <qmtranscode/job/MediaFile.h>
#include <signal.h>
#include <support/SessionRun.h>
#include <sys/resource.h>
#include <unistd.h>

#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace android::qmmediaeditor {

namespace {

typedef FaultScript::Part Part;
typedef FaultScript::What What;

constexpr double kSoonSeconds = 2.0 * kSlowness;

FaultPlatform& platform() {
    static FaultPlatform instance(createHostPlatform(HostOptions{"ultrafast", false, {}}));
    return instance;
}

struct Kind {
    const char* name;
    const char* clip;  // of 10 seconds
    bool hasAudio;
    bool hasVideo;
    std::vector<TrimPeriod> periods;
    int64_t outputUs;  // kAnyLength: what a period that goes back keeps depends on the threads
};

void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

constexpr int64_t kAnyLength = -1;
const std::vector<TrimPeriod> kTwoPeriods = {{500000, 2000000}, {3000000, 6000000}};
const std::vector<TrimPeriod> kGoingBack = {{500000, 2000000}, {1000000, 4000000}};

const Kind kKinds[] = {
    {"audio", "audio.m4a", true, false, {}, 10000000},
    {"video", "video.mp4", false, true, {}, 10000000},
    {"both", "steps.mp4", true, true, {}, 10000000},
    {"audioTrimmed", "audio.m4a", true, false, kTwoPeriods, 4500000},
    {"videoTrimmed", "video.mp4", false, true, kTwoPeriods, 4500000},
    {"bothTrimmed", "steps.mp4", true, true, kTwoPeriods, 4500000},
    {"bothGoingBack", "steps.mp4", true, true, kGoingBack, kAnyLength},
};

class FaultTest : public testing::TestWithParam<Kind> {
protected:
    // Runs once for each fault, and then `check`, with what struck and the run. The first run pays
    // for what a process sets up once; after that nothing may be left behind.
    void forEach(const std::vector<FaultScript>& faults,
                 const std::function<void(SessionRun&, FaultClock&)>& check) {
        Footprint before = Footprint::take(1 + kForeignThreads);
        for (size_t i = 0; i < faults.size(); ++i) {
            SCOPED_TRACE("fault " + std::to_string(i) + ", at " + std::to_string(faults[i].at));
            const std::shared_ptr<FaultClock> clock = platform().setScript(faults[i]);
            {
                SessionRun run(std::string(QM_CLIPS_DIR "/") + GetParam().clip, GetParam().periods);
                check(run, *clock);
            }
            const Footprint after = Footprint::take(before.threads + kForeignThreads);
            if (i == 0) before.heapBytes = after.heapBytes;
            EXPECT_LE(after.threads, before.threads + kForeignThreads);
            EXPECT_EQ(after.descriptors, before.descriptors);
            EXPECT_LT(after.heapBytes, before.heapBytes + (256 << 10));
        }
    }

    std::vector<Part> parts(Part audio, Part video) const {
        std::vector<Part> parts;
        if (GetParam().hasAudio) parts.push_back(audio);
        if (GetParam().hasVideo) parts.push_back(video);
        return parts;
    }

    static void expectEndsSoon(SessionRun& run, Clock::time_point since) {
        EXPECT_LT(secondsBetween(since, run.endedAt()), kSoonSeconds);
    }

    // Whatever ended the run, what is in the file decodes.
    static void expectAudio(SessionRun& run) {
        if (run.output().sizeBytes() == 0) return;
        EXPECT_EQ(complaintsAbout(run.output().path()), "");
    }

    void expectWhole(SessionRun& run) const {
        EXPECT_EQ(run.result(), 0);
        expectAudio(run);
        const int fd = run.output().open();
        const std::optional<cli::MediaFile> file = cli::readMediaFile(fd).media;
        close(fd);
        ASSERT_TRUE(file);
        EXPECT_EQ(file->audio.has_value(), GetParam().hasAudio);
        EXPECT_EQ(file->video.has_value(), GetParam().hasVideo);
        expectLength(file->audio);
        expectLength(file->video);
    }

    template <typename Track>
    static void expectLength(const std::optional<Track>& track) {
        if (!track || GetParam().outputUs == kAnyLength) return;
        EXPECT_NEAR(static_cast<double>(track->durationUs),
                    static_cast<double>(GetParam().outputUs), 1e5);
    }
};

TEST_P(FaultTest, encoderThatFails_endsTheRunWithItsError) {
    std::vector<FaultScript> faults;
    for (const Part part : parts(Part::kAudioEncoder, Part::kVideoEncoder)) {
        for (const unsigned at : {0U, 1U, 10U, 11U, 12U, 100U}) {
            faults.push_back({part, What::kInputFails, at});
            faults.push_back({part, What::kOutputFails, at});
        }
    }
    forEach(faults, [](SessionRun& run, FaultClock& fault) {
        EXPECT_EQ(run.result(), kEncoderError);
        expectEndsSoon(run, fault.at());
        expectAudio(run);
    });
}

TEST_P(FaultTest, encoderThatCannotBeHad_endsTheRunWithItsError) {
    std::vector<FaultScript> faults;
    for (const Part part : parts(Part::kAudioEncoder, Part::kVideoEncoder)) {
        for (const What what : {What::kNotCreated, What::kNotConfigured, What::kNotStarted}) {
            faults.push_back({part, what});
        }
    }
    forEach(faults, [](SessionRun& run, FaultClock& fault) {
        EXPECT_EQ(run.result(), kEncoderError);
        expectEndsSoon(run, fault.at());
    });
}

TEST_P(FaultTest, codecThatStalls_canBeStopped) {
    std::vector<FaultScript> faults;
    for (const auto& [audio, video] : {std::pair(Part::kAudioDecoder, Part::kVideoDecoder),
                                       std::pair(Part::kAudioEncoder, Part::kVideoEncoder)}) {
        for (const Part part : parts(audio, video)) {
            for (const unsigned at : {0U, 1U, 11U, 50U})
                faults.push_back({part, What::kStalls, at});
        }
    }
    forEach(faults, [](SessionRun& run, FaultClock& fault) {
        ASSERT_TRUE(fault.waitFor(kEndBound));
        // By the end of this time everyone waits for somebody else.
        EXPECT_FALSE(run.endsWithin(std::chrono::milliseconds(300)));
        const Clock::time_point cancelled = Clock::now();
        run.cancel();
        EXPECT_EQ(run.result(), kStopped);
        expectEndsSoon(run, cancelled);
        expectAudio(run);
    });
}

TEST_P(FaultTest, formatChangeThatComesLate_losesNothing) {
    std::vector<FaultScript> faults;
    for (const Part part : parts(Part::kAudioDecoder, Part::kVideoDecoder)) {
        for (const unsigned at : {1U, 11U, 30U}) faults.push_back({part, What::kFormatLate, at});
    }
    forEach(faults, [this](SessionRun& run, FaultClock&) { expectWhole(run); });
}

TEST_P(FaultTest, secondFormatChange_endsInAFileThatDecodes) {
    std::vector<FaultScript> faults;
    for (const Part part : parts(Part::kAudioDecoder, Part::kVideoDecoder)) {
        for (const unsigned at : {0U, 1U, 11U, 30U})
            faults.push_back({part, What::kFormatAgain, at});
    }
    forEach(faults, [](SessionRun& run, FaultClock& fault) {
        EXPECT_EQ(run.result(), 0);
        EXPECT_TRUE(fault.waitFor(std::chrono::seconds(0)));
        expectAudio(run);
    });
}

TEST_P(FaultTest, inputThatEndsEarly_endsTheRun) {
    std::vector<FaultScript> faults;
    for (const unsigned at : {0U, 1U, 20U, 100U})
        faults.push_back({Part::kExtractor, What::kEnds, at});
    forEach(faults, [](SessionRun& run, FaultClock& fault) {
        EXPECT_EQ(run.result(), 0);
        expectEndsSoon(run, fault.at());
        expectAudio(run);
    });
}

TEST_P(FaultTest, inputThatCannotBeRead_endsTheRunWithItsError) {
    std::vector<FaultScript> faults;
    for (const unsigned at : {0U, 1U, 20U, 100U})
        faults.push_back({Part::kExtractor, What::kReadFails, at});
    forEach(faults, [](SessionRun& run, FaultClock& fault) {
        EXPECT_EQ(run.result(), kReadError);
        expectEndsSoon(run, fault.at());
        expectAudio(run);
    });
}

TEST_P(FaultTest, decoderThatRefusesAnInput_endsTheRunWithItsError) {
    std::vector<FaultScript> faults;
    for (const Part part : parts(Part::kAudioDecoder, Part::kVideoDecoder)) {
        for (const unsigned at : {0U, 1U, 20U, 50U})
            faults.push_back({part, What::kInputFails, at});
    }
    forEach(faults, [](SessionRun& run, FaultClock& fault) {
        EXPECT_EQ(run.result(), kDecoderError);
        expectEndsSoon(run, fault.at());
        expectAudio(run);
    });
}

TEST_P(FaultTest, eventOfTheWriter_stopsTheRunWhenItHasTo) {
    std::vector<FaultScript> faults;
    for (const unsigned at : {0U, 1U, 12U, 60U}) {
        faults.push_back({Part::kWriter, What::kEvent, at, 1, -5});
        faults.push_back({Part::kWriter, What::kEvent, at, 2, 800});
        faults.push_back({Part::kWriter, What::kEvent, at, 2, 801});
    }
    forEach(faults, [](SessionRun& run, FaultClock& fault) {
        EXPECT_EQ(run.result(), kStopped);
        expectEndsSoon(run, fault.at());
        expectAudio(run);
    });
    forEach({{Part::kWriter, What::kEvent, 12, 2, 802}, {Part::kWriter, What::kEvent, 12, 3, 0}},
            [this](SessionRun& run, FaultClock&) { expectWhole(run); });
}

// As when the pool cannot make a buffer that is large enough.
TEST_P(FaultTest, sampleThatCannotBeRead_stopsTheRun) {
    std::vector<FaultScript> faults;
    for (const unsigned at : {0U, 1U, 12U, 60U})
        faults.push_back({Part::kWriter, What::kReadFails, at});
    forEach(faults, [](SessionRun& run, FaultClock& fault) {
        EXPECT_EQ(run.result(), kStopped);
        expectEndsSoon(run, fault.at());
        expectAudio(run);
    });
}

// The file may not grow beyond a size, as on a disc without room.
TEST_P(FaultTest, fullDisc_isNeverAWholeFile) {
    int64_t movieOffset = 0;
    forEach({{}}, [&](SessionRun& run, FaultClock&) {
        expectWhole(run);
        const int fd = run.output().open();
        movieOffset =
            readTopLevelBoxes(*DescriptorFile::openForReading(fd, 0, INT64_MAX).file).movieOffset;
        close(fd);
    });
    ASSERT_GT(movieOffset, 0);

    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    for (const int64_t bytes :
         {int64_t{0}, int64_t{1}, int64_t{30}, movieOffset / 2, movieOffset + 10}) {
        SCOPED_TRACE(bytes);
        limit.rlim_cur = static_cast<rlim_t>(bytes);
        setrlimit(RLIMIT_FSIZE, &limit);
        forEach({{}}, [&](SessionRun& run, FaultClock&) {
            EXPECT_TRUE(run.result() == kStopped || run.result() == kSessionFailed) << run.result();
        });
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
}

TEST(PeriodTest, aPeriodAtTheEndOfTheRangeOfTimesEnds) {
    for (const int64_t startUs : {INT64_MAX - 1000000000, INT64_MAX - 1, INT64_MAX}) {
        SCOPED_TRACE(startUs);
        SessionRun run(QM_CLIPS_DIR "/steps.mp4", {{startUs, INT64_MAX}});
        EXPECT_TRUE(run.endsWithin(kEndBound));
    }
}

std::string nameOf(const testing::TestParamInfo<Kind>& kind) { return kind.param.name; }

INSTANTIATE_TEST_SUITE_P(Runs, FaultTest, testing::ValuesIn(kKinds), nameOf);

}  // namespace

}  // namespace android::qmmediaeditor

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    android::qmmediaeditor::Platform::install(&android::qmmediaeditor::platform());
    __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
    return RUN_ALL_TESTS();
}
