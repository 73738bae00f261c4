// The writer: files made from samples of a real clip, and the ways in which a run can end.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <media/stagefright/foundation/MediaDefs.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <future>

#include "IoSupport.h"
#include "host/writer/FileWriter.h"

namespace android {
namespace qmmediaeditor {

namespace {

constexpr auto kBound = std::chrono::seconds(20);
const std::string kUuid = "0123456789abcdefuuid payload";

class EventLog : public IMediaRecorderClient {
public:
    IBinder* onAsBinder() override { return nullptr; }
    void notify(int msg, int ext1, int) override {
        ++mCount;
        mLast = {msg, ext1};
        mCame.set_value();
    }

    // After the first event.
    std::pair<int, int> wait() {
        EXPECT_EQ(std::future_status::ready, mCame.get_future().wait_for(kBound));
        return mLast;
    }
    int count() const { return mCount; }

private:
    std::atomic<int> mCount{0};
    std::pair<int, int> mLast;
    std::promise<void> mCame;
};

// Length-prefixed units as start-code units: what an encoder makes.
std::vector<uint8_t> toByteStream(std::vector<uint8_t> data) {
    for (size_t at = 0; at + 4 <= data.size();) {
        const size_t size = static_cast<size_t>(data[at]) << 24 |
                            static_cast<size_t>(data[at + 1]) << 16 |
                            static_cast<size_t>(data[at + 2]) << 8 | data[at + 3];
        data[at] = data[at + 1] = data[at + 2] = 0;
        data[at + 3] = 1;
        at += 4 + size;
    }
    return data;
}

std::vector<uint8_t> bytesOf(const sp<AMessage>& format, const char* key) {
    sp<ABuffer> buffer;
    if (!format->findBuffer(key, &buffer)) return {};
    return std::vector<uint8_t>(buffer->data(), buffer->data() + buffer->size());
}

}  // namespace

class WriterTest : public ::testing::Test {
protected:
    WriterTest()
        : mInput(makeClip("unordered.mp4",
                          pictures(2) + sound(2) + " -c:v libx264 -bf 0 -g 30 -c:a aac ")) {
        mInput.seek(0);
        mSamples = mInput.read();
        const auto video = static_cast<size_t>(mInput.videoTrack());
        mVideoConfig = bytesOf(mInput.format(video), "csd-0");
        const auto more = bytesOf(mInput.format(video), "csd-1");
        mVideoConfig.insert(mVideoConfig.end(), more.begin(), more.end());
        mAudioConfig = bytesOf(mInput.format(static_cast<size_t>(mInput.audioTrack())), "csd-0");
    }

    void open(const std::string& path, bool fastStart = false) {
        const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        HostOptions options;
        options.fastStart = fastStart;
        mWriter = createFileWriter(fd, options);
        close(fd);
        mWriter->setListener(mEvents);
        mWriter->addSource(mVideo);
        mWriter->addSource(mAudio);
    }

    void pushVideo() {
        for (const Sample& sample : ofTrack(mSamples, mInput.videoTrack())) {
            mVideo->push(toByteStream(sample.data), sample.presentationUs, sample.isSync);
        }
    }

    void pushAudio() {
        for (const Sample& sample : ofTrack(mSamples, mInput.audioTrack())) {
            mAudio->push(sample.data, sample.timeUs);
        }
    }

    void endBoth() {
        mVideo->pushEnd();
        mAudio->pushEnd();
    }

    OpenedClip mInput;
    std::vector<Sample> mSamples;
    std::vector<uint8_t> mVideoConfig;
    std::vector<uint8_t> mAudioConfig;
    const sp<QueueSource> mVideo = new QueueSource(videoFormat(MEDIA_MIMETYPE_VIDEO_AVC, 160, 120));
    const sp<QueueSource> mAudio = new QueueSource(audioFormat(MEDIA_MIMETYPE_AUDIO_AAC, 48000, 1));
    const sp<EventLog> mEvents = new EventLog;
    sp<MediaWriter> mWriter;
};

class WriterLayouts : public WriterTest, public ::testing::WithParamInterface<bool> {};

TEST_P(WriterLayouts, aRunComesOutAsItWentIn) {
    const std::string path = scratchPath(GetParam() ? "fast.mp4" : "slow.mp4");
    std::ofstream(path) << std::string(1 << 20, 'x');  // an older and longer file
    open(path, GetParam());
    const sp<MetaData> params = new MetaData;
    params->setInt32(kKeyFileType, 2);
    params->setInt32(kKeyRotation, 90);
    mVideo->pushConfig(mVideoConfig);
    mAudio->pushConfig(mAudioConfig);
    ASSERT_EQ(OK, mWriter->start(params.get()));
    setWriterUuidData(mWriter, reinterpret_cast<const unsigned char*>(kUuid.data()),
                      static_cast<int>(kUuid.size()));
    pushVideo();
    pushAudio();
    mVideo->waitUntilDrained();
    mAudio->waitUntilDrained();
    EXPECT_FALSE(mWriter->reachedEOS());
    EXPECT_EQ(OK, mWriter->stop());
    EXPECT_TRUE(mWriter->reachedEOS());
    EXPECT_EQ(0, mEvents->count());

    OpenedClip output(path);
    ASSERT_EQ(OK, output.result());
    EXPECT_EQ(90, output.int32Of(0, "rotation-degrees"));
    EXPECT_EQ(30, output.int32Of(0, "frame-rate"));
    EXPECT_EQ(mVideoConfig.size(), bytesOf(output.format(0), "csd-0").size() +
                                       bytesOf(output.format(0), "csd-1").size());
    EXPECT_EQ(mAudioConfig, bytesOf(output.format(1), "csd-0"));
    sp<AMessage> fileFormat;
    output.extractor().getFileFormat(&fileFormat);
    const auto uuid = bytesOf(fileFormat, "uuid-data");
    EXPECT_EQ(kUuid, std::string(uuid.begin(), uuid.end()));
    output.seek(0);
    const auto samples = output.read();
    EXPECT_LT(samples[0].timeUs, 0) << "the encoder's delay";
    EXPECT_TRUE(mSamples == samples);
    EXPECT_EQ(0, system(("ffmpeg -nostdin -v error -xerror -i " + path + " -f null -").c_str()));
}

INSTANTIATE_TEST_SUITE_P(, WriterLayouts, ::testing::Bool(), [](const auto& parameter) {
    return parameter.param ? "movieBoxFirst" : "movieBoxLast";
});

TEST_F(WriterTest, aTrackMayWakeUpWhenTheOtherHasEnded) {
    const std::string path = scratchPath("late.mp4");
    open(path);
    mAudio->pushConfig(mAudioConfig);
    ASSERT_EQ(OK, mWriter->start(nullptr));
    pushAudio();
    mAudio->waitUntilDrained();
    mAudio->pushEnd();
    mVideo->pushConfig(mVideoConfig);
    pushVideo();
    mVideo->waitUntilDrained();
    EXPECT_EQ(OK, mWriter->stop());

    // All sound lies in front of all pictures, and still they come in time order.
    OpenedClip output(path);
    output.seek(0);
    EXPECT_TRUE(mSamples == output.read());
}

TEST_F(WriterTest, tracksWithoutSamples_areLeftOut) {
    const std::string path = scratchPath("half.mp4");
    open(path);
    mVideo->pushConfig(mVideoConfig);
    mAudio->pushConfig(mAudioConfig);
    ASSERT_EQ(OK, mWriter->start(nullptr));
    pushAudio();
    mAudio->waitUntilDrained();
    EXPECT_EQ(OK, mWriter->stop());
    EXPECT_EQ(OK, mWriter->stop());
    OpenedClip output(path);
    EXPECT_EQ(1u, output.extractor().countTracks());
    EXPECT_EQ("audio/mp4a-latm", output.mime(0));
}

TEST_F(WriterTest, nothingAtAll_isNoFailure) {
    open(scratchPath("nothing.mp4"), true);
    ASSERT_EQ(OK, mWriter->start(nullptr));
    EXPECT_EQ(OK, mWriter->stop());
    EXPECT_TRUE(mWriter->reachedEOS());

    open(scratchPath("idle.mp4"));
    EXPECT_TRUE(mWriter->reachedEOS());
    EXPECT_EQ(OK, mWriter->stop());
    EXPECT_NE(OK, mWriter->start(nullptr));
    EXPECT_NE(OK, mWriter->addSource(mVideo));
    EXPECT_NE(OK, mWriter->pause());
}

TEST_F(WriterTest, deletingARunningWriter_endsItsTracks) {
    open(scratchPath("deleted.mp4"));
    ASSERT_EQ(OK, mWriter->start(nullptr));
    mWriter.clear();
    MediaBufferBase* buffer = nullptr;
    EXPECT_EQ(ERROR_END_OF_STREAM, mVideo->read(&buffer, nullptr)) << "the source was stopped";
}

TEST_F(WriterTest, aFullDisc_isReportedOnce_andEndsEveryTrack) {
    open("/dev/full");
    mVideo->pushConfig(mVideoConfig);
    mAudio->pushConfig(mAudioConfig);
    ASSERT_EQ(OK, mWriter->start(nullptr));
    pushVideo();
    pushAudio();
    EXPECT_EQ(std::make_pair(1, -ENOSPC), mEvents->wait());
    endBoth();
    EXPECT_EQ(-ENOSPC, mWriter->stop());
    EXPECT_TRUE(mWriter->reachedEOS());
    EXPECT_EQ(1, mEvents->count());
}

TEST_F(WriterTest, whatCannotBeWritten_isRefusedAtTheStart) {
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    mWriter = createFileWriter(ends[1], HostOptions());
    EXPECT_NE(OK, mWriter->start(nullptr));
    close(ends[0]);
    close(ends[1]);
    EXPECT_NE(OK, createFileWriter(-1, HostOptions())->start(nullptr));
}

// A client takes a refused start for a mistake of its own, and formats come from the input.
TEST_F(WriterTest, tracksThatCannotBeWritten_areReportedAsAWriteError) {
    const std::vector<sp<MetaData>> formats = {
        videoFormat("video/x-unknown", 160, 120),
        videoFormat(MEDIA_MIMETYPE_VIDEO_VP8, 160, 120),
        videoFormat(MEDIA_MIMETYPE_VIDEO_AVC, 0, 0),
    };
    for (const sp<MetaData>& format : formats) {
        open(scratchPath("refused.mp4"));
        const sp<EventLog> events = new EventLog;
        mWriter->setListener(events);
        mWriter->addSource(new QueueSource(format));
        EXPECT_EQ(OK, mWriter->start(nullptr));
        EXPECT_EQ(1, events->count());
        EXPECT_TRUE(mWriter->reachedEOS());
        EXPECT_NE(OK, mWriter->stop());
    }
}

TEST(WriterTypes, thirdGenerationSound_makesA3gpFile_whateverWasAskedFor) {
    OpenedClip input(
        makeClip("speech.amr", " -f lavfi -i sine=r=8000:d=1 -c:a libopencore_amrnb "));
    const std::string path = scratchPath("speech.mp4");
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    const sp<MediaWriter> writer = createFileWriter(fd, HostOptions());
    close(fd);
    const sp<QueueSource> source =
        new QueueSource(audioFormat(MEDIA_MIMETYPE_AUDIO_AMR_NB, 8000, 1));
    for (const Sample& sample : input.read()) source->push(sample.data, sample.timeUs);
    writer->addSource(source);
    const sp<MetaData> params = new MetaData;
    params->setInt32(kKeyFileType, 2);
    ASSERT_EQ(OK, writer->start(params.get()));
    source->waitUntilDrained();
    EXPECT_EQ(OK, writer->stop());
    std::string head(12, 0);
    std::ifstream(path, std::ios::binary).read(head.data(), 12);
    EXPECT_EQ("ftyp3gp", head.substr(4, 7));
    EXPECT_EQ("audio/3gpp", OpenedClip(path).mime(0));
}

}  // namespace qmmediaeditor
}  // namespace android
