#include "IoSupport.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "host/codec/TrackSource.h"
#include "host/extractor/FileExtractor.h"

extern "C" {
#include <libavcodec/packet.h>
}

namespace android::qmmediaeditor {

namespace {

constexpr size_t kBufferBytes = 4 << 20;

class ScratchFolder {
public:
    ScratchFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "host-io-XXXXXX").string();
        mPath = mkdtemp(name.data());
        // Paths are relative to it, because they become words of shell commands and its own may
        // have spaces.
        std::filesystem::current_path(mPath);
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(mPath, ignored);
    }

private:
    std::filesystem::path mPath;
};

}  // namespace

std::string scratchPath(const std::string& name) {
    static const ScratchFolder folder;
    return name;
}

int memoryFile(const std::string& content) {
    const int fd = memfd_create("test", MFD_CLOEXEC);
    EXPECT_EQ(static_cast<ssize_t>(content.size()), write(fd, content.data(), content.size()));
    return fd;
}

std::string makeClip(const std::string& name, const std::string& arguments) {
    const std::string path = scratchPath(name);
    if (std::filesystem::exists(path)) return path;
    const std::string command = "ffmpeg -nostdin -v error -y " + arguments + " " + path;
    EXPECT_EQ(0, system(command.c_str())) << command;
    return path;
}

std::string videoInput(int seconds) {
    return " -f lavfi -i testsrc2=s=160x120:r=30000/1001:d=" + std::to_string(seconds) + " ";
}

std::string audioInput(int seconds) {
    return " -f lavfi -i sine=r=48000:d=" + std::to_string(seconds) + " ";
}

OpenedClip::OpenedClip(const std::string& path) : mExtractor(createFileExtractor()) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    mResult = mExtractor->setDataSource(fd, 0, INT64_MAX / 2);
    close(fd);
    for (size_t i = 0; i < mExtractor->countTracks(); ++i) {
        const std::string type = mime(i);
        const bool isSupported = type.find("notsupported") == std::string::npos;
        if (mVideoTrack < 0 && isSupported && type.rfind("video/", 0) == 0) {
            mVideoTrack = static_cast<int>(i);
        } else if (mAudioTrack < 0 && isSupported && type.rfind("audio/", 0) == 0) {
            mAudioTrack = static_cast<int>(i);
        } else {
            continue;
        }
        EXPECT_EQ(OK, mExtractor->selectTrack(i));
    }
}

sp<AMessage> OpenedClip::format(size_t track) {
    sp<AMessage> format;
    EXPECT_EQ(OK, mExtractor->getTrackFormat(track, &format));
    return format;
}

int32_t OpenedClip::int32Of(size_t track, const char* key) {
    int32_t value = -1;
    format(track)->findInt32(key, &value);
    return value;
}

int64_t OpenedClip::durationUs(size_t track) {
    int64_t value = -1;
    format(track)->findInt64("durationUs", &value);
    return value;
}

std::string OpenedClip::mime(size_t track) {
    AString mime;
    EXPECT_TRUE(format(track)->findString("mime", &mime));
    return mime.c_str();
}

void OpenedClip::seek(int64_t timeUs) {
    EXPECT_EQ(OK, mExtractor->seekTo(timeUs, ExtractorBackend::SeekMode::SEEK_PREVIOUS_SYNC));
}

std::vector<Sample> OpenedClip::read() {
    std::vector<Sample> samples;
    const sp<ABuffer> buffer = new ABuffer(kBufferBytes);
    Sample sample;
    while (mExtractor->getSampleTrackIndex(&sample.track) == OK) {
        EXPECT_EQ(OK, mExtractor->getSampleTime(&sample.timeUs));
        EXPECT_EQ(OK, mExtractor->readSampleData(buffer));
        sp<MetaData> meta;
        EXPECT_EQ(OK, mExtractor->getSampleMeta(&meta));
        int32_t isSync = 0;
        meta->findInt32(kKeyIsSyncFrame, &isSync);
        const PacketInfo info = TrackSource::find(format(sample.track))->take(sample.timeUs);
        EXPECT_NE(nullptr, info.properties);
        sample.presentationUs = info.properties == nullptr ? 0 : info.properties->pts;
        sample.isSync = isSync != 0;
        sample.data.assign(buffer->data(), buffer->data() + buffer->size());
        samples.push_back(sample);
        EXPECT_EQ(OK, mExtractor->advance());
    }
    return samples;
}

std::vector<uint8_t> bufferOf(const sp<AMessage>& format, const char* key) {
    sp<ABuffer> buffer;
    if (!format->findBuffer(key, &buffer)) return {};
    return std::vector<uint8_t>(buffer->data(), buffer->data() + buffer->size());
}

std::vector<Sample> ofTrack(const std::vector<Sample>& samples, int track) {
    std::vector<Sample> result;
    std::copy_if(samples.begin(), samples.end(), std::back_inserter(result),
                 [track](const Sample& s) { return static_cast<int>(s.track) == track; });
    return result;
}

QueueSource::QueueSource(const sp<MetaData>& format) : mFormat(format) {
    mGroup.add_buffer(MediaBufferBase::Create(kBufferBytes));
}

void QueueSource::push(const std::vector<uint8_t>& data, int64_t timeUs, bool isSync,
                       bool isConfig) {
    std::lock_guard<std::mutex> lock(mLock);
    mEntries.push_back({data, timeUs, isSync, isConfig});
    mChanged.notify_all();
}

status_t QueueSource::stop() {
    std::lock_guard<std::mutex> lock(mLock);
    mEnded = true;
    mChanged.notify_all();
    return OK;
}

status_t QueueSource::read(MediaBufferBase** buffer, const ReadOptions*) {
    std::unique_lock<std::mutex> lock(mLock);
    while (mEntries.empty() && !mEnded) {
        mWaiting = true;
        mChanged.notify_all();
        mChanged.wait(lock);
    }
    mWaiting = false;
    if (mEntries.empty()) return ERROR_END_OF_STREAM;
    const Entry entry = mEntries.front();
    mEntries.pop_front();
    // A writer that keeps the only buffer would hang here.
    if (mGroup.acquire_buffer(buffer, true) != OK) {
        ADD_FAILURE() << "the writer has not released its buffer";
        return ERROR_IO;
    }
    memcpy((*buffer)->data(), entry.data.data(), entry.data.size());
    (*buffer)->set_range(0, entry.data.size());
    MetaDataBase& meta = (*buffer)->meta_data();
    meta.clear();
    if (entry.isConfig) meta.setInt32(kKeyIsCodecConfig, 1);
    meta.setInt32(kKeyIsSyncFrame, entry.isSync ? 1 : 0);
    meta.setInt64(kKeyTime, entry.timeUs);
    return OK;
}

void QueueSource::waitUntilDrained() {
    std::unique_lock<std::mutex> lock(mLock);
    mChanged.wait(lock, [this] { return mEntries.empty() && mWaiting; });
}

}  // namespace android::qmmediaeditor
