// Shared by the tests of the extractor, the writer and their files: scratch files, clips, samples.
#pragma once

#include <Platform.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <media/stagefright/foundation/ABuffer.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "host/codec/TrackSource.h"
#include "host/extractor/FileExtractor.h"

extern "C" {
#include <libavcodec/packet.h>
}

namespace android::qmmediaeditor {

// A file in a folder that goes away with the test program.
inline std::string scratchPath(const std::string& name) {
    static const struct ScratchFolder {
        // Paths are relative to it, because they become words of shell commands and its own may
        // have spaces.
        ScratchFolder() { std::filesystem::current_path(mkdtemp(path.data())); }
        ~ScratchFolder() { std::filesystem::remove_all(path); }
        std::string path = std::filesystem::temp_directory_path() / "host-io-XXXXXX";
    } folder;
    return name;
}

// A descriptor of a file that holds this.
inline int memoryFile(const std::string& content) {
    const int fd = memfd_create("test", MFD_CLOEXEC);
    EXPECT_EQ(static_cast<ssize_t>(content.size()), write(fd, content.data(), content.size()));
    return fd;
}

// A big-endian number, and boxes of an ISO file.
inline std::string number(uint64_t value, int bytes = 4) {
    std::string result;
    for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8) {
        result.push_back(static_cast<char>(value >> shift));
    }
    return result;
}

inline std::string boxOfSize(uint64_t size, const std::string& type, const std::string& content) {
    return number(size) + type + content;
}

inline std::string box(const std::string& type, const std::string& content) {
    return boxOfSize(content.size() + 8, type, content);
}

// A clip of that name, made once in a run by ffmpeg with these arguments in front of the name.
inline std::string makeClip(const std::string& name, const std::string& arguments) {
    const std::string path = scratchPath(name);
    if (std::filesystem::exists(path)) return path;
    const std::string command = "ffmpeg -nostdin -v error -y " + arguments + " " + path;
    EXPECT_EQ(0, system(command.c_str())) << command;
    return path;
}

// Video of 160x120 at 30000/1001 frames per second and audio at 48000 Hz, as ffmpeg inputs.
inline std::string videoInput(int seconds) {
    return " -f lavfi -i testsrc2=s=160x120:r=30000/1001:d=" + std::to_string(seconds) + " ";
}
inline std::string audioInput(int seconds) {
    return " -f lavfi -i sine=r=48000:d=" + std::to_string(seconds) + " ";
}

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

inline std::vector<Sample> ofTrack(const std::vector<Sample>& samples, int track) {
    std::vector<Sample> result;
    for (const Sample& sample : samples) {
        if (static_cast<int>(sample.track) == track) result.push_back(sample);
    }
    return result;
}

// Empty when it is absent.
inline std::vector<uint8_t> bufferOf(const sp<AMessage>& format, const char* key) {
    sp<ABuffer> buffer;
    if (!format->findBuffer(key, &buffer)) return {};
    return std::vector<uint8_t>(buffer->data(), buffer->data() + buffer->size());
}

// An extractor on a file, with the first audio and the first video track selected as a session
// does.
class OpenedClip {
public:
    explicit OpenedClip(const std::string& path) {
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        mResult = mExtractor->setDataSource(fd, 0, INT64_MAX / 2);
        close(fd);
        for (int i = 0; i < static_cast<int>(mExtractor->countTracks()); ++i) {
            const std::string type = mime(i);
            if (type.find("notsupported") != std::string::npos) continue;
            int* const first = type.rfind("video/", 0) == 0   ? &mVideoTrack
                               : type.rfind("audio/", 0) == 0 ? &mAudioTrack
                                                              : nullptr;
            if (first == nullptr || *first >= 0) continue;
            *first = i;
            EXPECT_EQ(OK, mExtractor->selectTrack(static_cast<size_t>(i)));
        }
    }

    status_t result() const { return mResult; }
    ExtractorBackend& extractor() { return *mExtractor; }
    int videoTrack() const { return mVideoTrack; }  // -1 without one
    int audioTrack() const { return mAudioTrack; }

    sp<AMessage> format(int track) {
        sp<AMessage> format;
        EXPECT_EQ(OK, mExtractor->getTrackFormat(static_cast<size_t>(track), &format));
        return format;
    }
    int32_t int32Of(int track, const char* key) {  // -1 when it is absent
        int32_t value = -1;
        format(track)->findInt32(key, &value);
        return value;
    }
    double durationUs(int track) {
        int64_t value = -1;
        format(track)->findInt64("durationUs", &value);
        return static_cast<double>(value);
    }
    std::string mime(int track) {
        AString mime;
        EXPECT_TRUE(format(track)->findString("mime", &mime));
        return mime.c_str();
    }

    // All samples from there on.
    std::vector<Sample> readFrom(int64_t timeUs = 0) {
        EXPECT_EQ(OK, mExtractor->seekTo(timeUs, ExtractorBackend::SeekMode::SEEK_PREVIOUS_SYNC));
        std::vector<Sample> samples;
        const sp<ABuffer> buffer = new ABuffer(4 << 20);
        Sample sample;
        while (mExtractor->getSampleTrackIndex(&sample.track) == OK) {
            EXPECT_EQ(OK, mExtractor->getSampleTime(&sample.timeUs));
            EXPECT_EQ(OK, mExtractor->readSampleData(buffer));
            sp<MetaData> meta;
            EXPECT_EQ(OK, mExtractor->getSampleMeta(&meta));
            int32_t isSync = 0;
            meta->findInt32(kKeyIsSyncFrame, &isSync);
            const sp<AMessage> trackFormat = format(static_cast<int>(sample.track));
            sample.presentationUs =
                TrackSource::find(trackFormat)->take(sample.timeUs).properties->pts;
            sample.isSync = isSync != 0;
            sample.data.assign(buffer->data(), buffer->data() + buffer->size());
            samples.push_back(sample);
            EXPECT_EQ(OK, mExtractor->advance());
        }
        return samples;
    }

private:
    const sp<ExtractorBackend> mExtractor = createFileExtractor();
    status_t mResult;
    int mVideoTrack = -1;
    int mAudioTrack = -1;
};

}  // namespace android::qmmediaeditor
