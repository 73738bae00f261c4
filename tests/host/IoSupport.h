// Shared by the tests of the extractor and the writer: scratch files, clips, samples and sources.
#pragma once

#include <Platform.h>
#include <media/stagefright/MediaBufferGroup.h>
#include <media/stagefright/MediaSource.h>
#include <media/stagefright/foundation/ABuffer.h>
#include <stdint.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

namespace android::qmmediaeditor {

// A file of its own in a folder that goes away with the test program.
std::string scratchPath(const std::string& name);
// A descriptor of a file that holds this.
int memoryFile(const std::string& content);
// A clip of that name, made once in a run by ffmpeg with these arguments in front of the name.
std::string makeClip(const std::string& name, const std::string& arguments);
// Video of 160x120 at 30000/1001 frames per second and audio at 48000 Hz, as ffmpeg inputs.
std::string videoInput(int seconds);
std::string audioInput(int seconds);
constexpr char kAvcAac[] = " -c:v libx264 -preset veryfast -bf 3 -g 30 -c:a aac ";

struct Sample {
    size_t track = 0;
    int64_t timeUs = 0;
    // INT64_MIN when the container does not state it.
    int64_t presentationUs = 0;
    bool isSync = false;
    std::vector<uint8_t> data;

    bool operator==(const Sample& other) const { return fields() == other.fields(); }
    std::tuple<size_t, int64_t, int64_t, bool, const std::vector<uint8_t>&> fields() const {
        return {track, timeUs, presentationUs, isSync, data};
    }
};

// An extractor on a file, with the first audio and the first video track selected as a session
// does.
class OpenedClip {
public:
    explicit OpenedClip(const std::string& path);

    status_t result() const { return mResult; }
    ExtractorBackend& extractor() { return *mExtractor; }
    sp<AMessage> format(size_t track);
    int32_t int32Of(size_t track, const char* key);  // -1 when it is absent
    int64_t durationUs(size_t track);
    std::string mime(size_t track);
    int videoTrack() const { return mVideoTrack; }  // -1 without one
    int audioTrack() const { return mAudioTrack; }

    void seek(int64_t timeUs);
    // Up to the end.
    std::vector<Sample> read();

private:
    sp<ExtractorBackend> mExtractor;
    status_t mResult;
    int mVideoTrack = -1;
    int mAudioTrack = -1;
};

// Empty when it is absent.
std::vector<uint8_t> bufferOf(const sp<AMessage>& format, const char* key);
std::vector<Sample> ofTrack(const std::vector<Sample>& samples, int track);

// Hands samples to a writer, one at a time, through a group of one buffer as the component's
// sources do.
class QueueSource : public MediaSource {
public:
    explicit QueueSource(const sp<MetaData>& format);

    void push(const std::vector<uint8_t>& data, int64_t timeUs, bool isSync = true,
              bool isConfig = false);
    void pushConfig(const std::vector<uint8_t>& data) { push(data, 0, true, true); }

    status_t start(MetaData*) override { return OK; }
    // Ends the stream behind what was pushed.
    status_t stop() override;
    sp<MetaData> getFormat() override { return mFormat; }
    status_t read(MediaBufferBase** buffer, const ReadOptions* options) override;

    // Returns when the writer has taken all that was pushed, and asks for more.
    void waitUntilDrained();

protected:
    ~QueueSource() override = default;

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
    bool mWaiting = false;
};

}  // namespace android::qmmediaeditor
