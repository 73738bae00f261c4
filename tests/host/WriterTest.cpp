// The writer: files made from samples of a real clip, and the ways in which a run can end.
#include <media/stagefright/MediaBufferGroup.h>
#include <media/stagefright/MediaSource.h>
#include <media/stagefright/foundation/MediaDefs.h>
#include <string.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <fstream>
#include <future>
#include <mutex>

#include "IoSupport.h"
#include "host/writer/FileWriter.h"

namespace android::qmmediaeditor {
namespace {

// Hands samples to a writer, one at a time, through a group of one buffer as the component's
// sources do.
class QueueSource : public MediaSource {
public:
    explicit QueueSource(const sp<MetaData>& format) : mFormat(format) {
        mGroup.add_buffer(MediaBufferBase::Create(1 << 20));
    }

    void push(const std::vector<uint8_t>& data, int64_t timeUs, bool isSync = true,
              bool isConfig = false) {
        std::lock_guard<std::mutex> lock(mLock);
        mEntries.push_back({data, timeUs, isSync, isConfig});
        mChanged.notify_all();
    }
    void pushConfig(const std::vector<uint8_t>& data) { push(data, 0, true, true); }
    // Returns when the writer has taken all that was pushed, and asks for more.
    void waitUntilDrained() {
        std::unique_lock<std::mutex> lock(mLock);
        mChanged.wait(lock, [this] { return mEntries.empty() && mWaiting; });
    }

    status_t start(MetaData*) override { return OK; }
    // The result of a read after the last sample; another one stands for a failure.
    void fail(status_t status) {
        mEndStatus = status;
        stop();
    }
    // Ends the stream behind what was pushed.
    status_t stop() override {
        std::lock_guard<std::mutex> lock(mLock);
        mEnded = true;
        mChanged.notify_all();
        return OK;
    }
    sp<MetaData> getFormat() override { return mFormat; }
    status_t read(MediaBufferBase** buffer, const ReadOptions*) override {
        std::unique_lock<std::mutex> lock(mLock);
        mWaiting = true;
        mChanged.notify_all();
        mChanged.wait(lock, [this] { return !mEntries.empty() || mEnded; });
        mWaiting = false;
        if (mEntries.empty()) return mEndStatus;
        const Entry entry = mEntries.front();
        mEntries.pop_front();
        // A writer that keeps the only buffer would hang here.
        EXPECT_EQ(OK, mGroup.acquire_buffer(buffer, true));
        memcpy((*buffer)->data(), entry.data.data(), entry.data.size());
        (*buffer)->set_range(0, entry.data.size());
        MetaDataBase& meta = (*buffer)->meta_data();
        meta.clear();
        if (entry.isConfig) meta.setInt32(kKeyIsCodecConfig, 1);
        meta.setInt32(kKeyIsSyncFrame, entry.isSync ? 1 : 0);
        meta.setInt64(kKeyTime, entry.timeUs);
        return OK;
    }

private:
    struct Entry {
        std::vector<uint8_t> data;
        int64_t timeUs;
        bool isSync;
        bool isConfig;
    };

    const sp<MetaData> mFormat;
    MediaBufferGroup mGroup;
    std::mutex mLock;
    std::condition_variable mChanged;
    std::deque<Entry> mEntries;
    bool mEnded = false;
    status_t mEndStatus = ERROR_END_OF_STREAM;
    bool mWaiting = false;
};

class EventLog : public IMediaRecorderClient {
public:
    IBinder* onAsBinder() override { return nullptr; }
    void notify(int msg, int ext1, int) override {
        EXPECT_EQ(1, msg);
        ++mCount;
        mError.set_value(ext1);
    }

    // Of the first event.
    int waitForError() {
        auto error = mError.get_future();
        EXPECT_EQ(std::future_status::ready, error.wait_for(std::chrono::seconds(20)));
        return error.get();
    }
    int count() const { return mCount; }

private:
    std::atomic<int> mCount{0};
    std::promise<int> mError;
};

// Length-prefixed units as start-code units: as an encoder makes them.
std::vector<uint8_t> toByteStream(std::vector<uint8_t> data) {
    for (size_t at = 0; at + 4 <= data.size();) {
        const size_t size = static_cast<size_t>(data[at + 1]) << 16 |
                            static_cast<size_t>(data[at + 2]) << 8 | data[at + 3];
        data[at + 1] = data[at + 2] = 0;
        data[at + 3] = 1;
        at += 4 + size;
    }
    return data;
}

sp<MetaData> trackFormat(const char* mime,
                         const std::vector<std::pair<uint32_t, int32_t>>& values) {
    sp<MetaData> format = new MetaData;
    format->setCString(kKeyMIMEType, mime);
    for (const auto& [key, value] : values) format->setInt32(key, value);
    return format;
}

sp<MetaData> videoFormat(const char* mime, int width, int height) {
    return trackFormat(mime, {{kKeyWidth, width}, {kKeyHeight, height}, {kKeyFrameRate, 30}});
}

sp<MetaData> audioFormat(const char* mime, int sampleRate) {
    return trackFormat(mime, {{kKeySampleRate, sampleRate}, {kKeyChannelCount, 1}});
}

class WriterTest : public ::testing::Test {
protected:
    // A writer without tracks.
    void create(const std::string& path, const HostOptions& options = {}) {
        const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        mWriter = createFileWriter(fd, options);
        close(fd);
        mEvents = new EventLog;
        mWriter->setListener(mEvents);
    }
    // A running writer of both tracks.
    void start(const std::string& path, const HostOptions& options = {}) {
        create(path, options);
        mWriter->addSource(mVideo);
        mWriter->addSource(mAudio);
        const sp<MetaData> params = new MetaData;
        params->setInt32(kKeyFileType, 2);
        params->setInt32(kKeyRotation, 90);
        ASSERT_EQ(OK, mWriter->start(params.get()));
    }

    void pushVideo() {
        mVideo->pushConfig(mVideoConfig);
        for (const Sample& sample : ofTrack(mSamples, 0)) {
            mVideo->push(toByteStream(sample.data), sample.presentationUs, sample.isSync);
        }
    }
    void pushAudio() {
        mAudio->pushConfig(mAudioConfig);
        for (const Sample& sample : ofTrack(mSamples, 1)) {
            mAudio->push(sample.data, sample.timeUs);
        }
    }
    // Once all that was pushed is written.
    void stop() {
        mVideo->waitUntilDrained();
        mAudio->waitUntilDrained();
        EXPECT_FALSE(mWriter->reachedEOS());
        EXPECT_EQ(OK, mWriter->stop());
        EXPECT_TRUE(mWriter->reachedEOS());
        EXPECT_EQ(0, mEvents->count());
    }

    // Video is track 0.
    OpenedClip mInput{makeClip(
        "unordered.mp4", videoInput(2) + audioInput(2) + " -c:v libx264 -bf 0 -g 30 -c:a aac ")};
    const std::vector<Sample> mSamples = mInput.readFrom();
    const std::vector<uint8_t> mVideoConfig = [this] {
        std::vector<uint8_t> config = bufferOf(mInput.format(0), "csd-0");
        const auto more = bufferOf(mInput.format(0), "csd-1");
        config.insert(config.end(), more.begin(), more.end());
        return config;
    }();
    const std::vector<uint8_t> mAudioConfig = bufferOf(mInput.format(1), "csd-0");
    const sp<QueueSource> mVideo = new QueueSource(videoFormat(MEDIA_MIMETYPE_VIDEO_AVC, 160, 120));
    const sp<QueueSource> mAudio = new QueueSource(audioFormat(MEDIA_MIMETYPE_AUDIO_AAC, 48000));
    sp<EventLog> mEvents;
    sp<MediaWriter> mWriter;
};

class WriterLayouts : public WriterTest, public ::testing::WithParamInterface<bool> {};

TEST_P(WriterLayouts, samplesAndMetadataAreWrittenUnchanged) {
    const std::string path = scratchPath(GetParam() ? "fast.mp4" : "slow.mp4");
    std::ofstream(path) << std::string(1 << 20, 'x');  // an older and longer file
    HostOptions options;
    options.fastStart = GetParam();
    start(path, options);
    const std::vector<uint8_t> uuid(30, 'u');
    setWriterUuidData(mWriter, uuid.data(), static_cast<int>(uuid.size()));
    pushVideo();
    pushAudio();
    stop();

    OpenedClip output(path);
    ASSERT_EQ(OK, output.result());
    EXPECT_EQ(90, output.int32Of(0, "rotation-degrees"));
    EXPECT_EQ(30, output.int32Of(0, "frame-rate"));
    for (const char* key : {"csd-0", "csd-1"}) {
        EXPECT_EQ(bufferOf(mInput.format(0), key), bufferOf(output.format(0), key));
    }
    EXPECT_EQ(mAudioConfig, bufferOf(output.format(1), "csd-0"));
    sp<AMessage> fileFormat;
    output.extractor().getFileFormat(&fileFormat);
    EXPECT_EQ(uuid, bufferOf(fileFormat, "uuid-data"));
    const auto samples = output.readFrom();
    EXPECT_LT(samples[0].timeUs, 0) << "the encoder's delay";
    EXPECT_TRUE(mSamples == samples);
    EXPECT_EQ(0, system(("ffmpeg -nostdin -v error -xerror -i " + path + " -f null -").c_str()));
}

INSTANTIATE_TEST_SUITE_P(, WriterLayouts, ::testing::Bool(), [](const auto& parameter) {
    return parameter.param ? "movieBoxFirst" : "movieBoxLast";
});

TEST_F(WriterTest, aFileWithoutSamplesIsNoFailure) {
    start(scratchPath("nothing.mp4"));
    EXPECT_EQ(OK, mWriter->stop());
    EXPECT_TRUE(mWriter->reachedEOS());

    create(scratchPath("idle.mp4"));
    EXPECT_TRUE(mWriter->reachedEOS());
    EXPECT_EQ(OK, mWriter->stop());
    EXPECT_NE(OK, mWriter->start(nullptr));
    EXPECT_NE(OK, mWriter->addSource(mVideo));
}

TEST_F(WriterTest, deletingARunningWriterEndsItsTracks) {
    start(scratchPath("deleted.mp4"));
    mWriter.clear();
    MediaBufferBase* buffer = nullptr;
    EXPECT_EQ(ERROR_END_OF_STREAM, mVideo->read(&buffer, nullptr)) << "the source was stopped";
}

TEST_F(WriterTest, aFullDiskIsReportedOnceAndEndsEveryTrack) {
    start("/dev/full");
    mAudio->waitUntilDrained();
    pushVideo();
    EXPECT_EQ(-ENOSPC, mEvents->waitForError());
    // The other track is waiting for a sample, and fails with it.
    pushAudio();
    mVideo->stop();
    mAudio->stop();
    EXPECT_EQ(-ENOSPC, mWriter->stop());
    EXPECT_TRUE(mWriter->reachedEOS());
    EXPECT_EQ(1, mEvents->count());
}

TEST_F(WriterTest, aSampleThatCannotBeReadIsReported) {
    start(scratchPath("unread.mp4"));
    mAudio->fail(NO_MEMORY);
    EXPECT_EQ(NO_MEMORY, mEvents->waitForError());
    mVideo->stop();
    mWriter->stop();
    EXPECT_EQ(1, mEvents->count());
}

// A client takes a refused start for a mistake of its own, and formats come from the input.
TEST_F(WriterTest, onlyTracksThatCannotBeWrittenAreReportedAsAWriteError) {
    EXPECT_NE(OK, createFileWriter(-1, HostOptions())->start(nullptr));
    for (const sp<MetaData>& format :
         {videoFormat("video/x-unknown", 160, 120), videoFormat(MEDIA_MIMETYPE_VIDEO_VP8, 160, 120),
          videoFormat(MEDIA_MIMETYPE_VIDEO_AVC, 0, 0)}) {
        create(scratchPath("refused.mp4"));
        mWriter->addSource(new QueueSource(format));
        EXPECT_EQ(OK, mWriter->start(nullptr));
        EXPECT_EQ(1, mEvents->count());
        EXPECT_TRUE(mWriter->reachedEOS());
        EXPECT_NE(OK, mWriter->stop());
    }
}

}  // namespace
}  // namespace android::qmmediaeditor
