#include "host/writer/FileWriter.h"

#include <media/stagefright/MediaErrors.h>
#include <string.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>

#include <atomic>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "host/foundation/TimedWait.h"
#include "host/io/IsoBoxes.h"
#include "host/writer/Mp4Muxer.h"

namespace android {
namespace qmmediaeditor {

namespace {

constexpr int32_t kMp4FileType = 2;
// Short, because the caller has other things to do in between.
constexpr int64_t kEndWaitUs = 100000;

class FileWriter final : public MediaWriter {
public:
    FileWriter(int fd, bool movieBoxFirst, std::shared_ptr<SessionTimeline> session);

    status_t addSource(const sp<MediaSource>& source) override;
    status_t start(MetaData* params) override;
    // The caller polls with sleeps in between. It waits here instead, and returns as soon as the
    // tracks have ended.
    bool reachedEOS() override;
    status_t stop() override;
    status_t pause() override { return INVALID_OPERATION; }

    void setUuidData(const uint8_t* data, size_t size);

protected:
    ~FileWriter() override;

private:
    enum class State { kIdle, kStarted, kStopped };

    status_t startSources() REQUIRES(mLock);
    status_t begin(const MetaData* params) REQUIRES(mLock);
    void startTracks() REQUIRES(mLock);

    // On the track's own thread.
    void runTrack(size_t index, const sp<MediaSource>& source);
    status_t write(size_t index, MediaBufferBase* buffer);
    void reportError(status_t error);
    void endTrackThread();

    Mutex mLock;
    State mState GUARDED_BY(mLock) = State::kIdle;
    std::vector<sp<MediaSource>> mSources GUARDED_BY(mLock);
    std::vector<uint8_t> mUuidBoxes GUARDED_BY(mLock);
    status_t mStartResult GUARDED_BY(mLock) = OK;
    status_t mResult GUARDED_BY(mLock) = OK;

    // Null when the descriptor cannot be written to.
    std::unique_ptr<Mp4Muxer> mFile;
    const bool mMovieBoxFirst;
    std::vector<std::thread> mThreads;

    Mutex mEndLock;
    Condition mTrackEnded;
    size_t mRunningTracks GUARDED_BY(mEndLock) = 0;
    // Set by the track thread that meets the first error; ends the others.
    std::atomic<bool> mFailed{false};
};

FileWriter::FileWriter(int fd, bool movieBoxFirst, std::shared_ptr<SessionTimeline> session)
    : mMovieBoxFirst(movieBoxFirst) {
    const DescriptorFile::Opened output = DescriptorFile::openForWriting(fd);
    if (output.file == nullptr) return;
    mFile = std::make_unique<Mp4Muxer>(output.file, std::move(session));
}

FileWriter::~FileWriter() { stop(); }

status_t FileWriter::addSource(const sp<MediaSource>& source) {
    Mutex::Autolock lock(mLock);
    if (mState != State::kIdle) return INVALID_OPERATION;
    if (source == nullptr) return BAD_VALUE;
    mSources.push_back(source);
    return OK;
}

status_t FileWriter::start(MetaData* params) {
    Mutex::Autolock lock(mLock);
    if (mState != State::kIdle) return INVALID_OPERATION;
    if (mFile == nullptr) return NO_INIT;
    if (const status_t result = startSources(); result != OK) return result;
    mState = State::kStarted;
    // An unusable format is reported like a full disk, because formats come from the input and the
    // request. A result other than OK would mean a mistake of the client, which then aborts.
    mStartResult = begin(params);
    if (mStartResult == OK) {
        startTracks();
    } else {
        reportError(mStartResult);
    }
    return OK;
}

status_t FileWriter::startSources() {
    for (size_t i = 0; i < mSources.size(); ++i) {
        const status_t result = mSources[i]->start(nullptr);
        if (result == OK) continue;
        for (size_t j = 0; j < i; ++j) mSources[j]->stop();
        return result;
    }
    return OK;
}

status_t FileWriter::begin(const MetaData* params) {
    for (const auto& source : mSources) {
        const sp<MetaData> format = source->getFormat();
        if (format == nullptr) return ERROR_MALFORMED;
        const status_t result = mFile->addTrack(*format);
        if (result != OK) return result;
    }
    int32_t fileType = kMp4FileType;
    int32_t rotationDegrees = 0;
    if (params != nullptr) {
        params->findInt32(kKeyFileType, &fileType);
        params->findInt32(kKeyRotation, &rotationDegrees);
    }
    return mFile->begin(fileType, rotationDegrees, mMovieBoxFirst);
}

void FileWriter::startTracks() {
    {
        Mutex::Autolock lock(mEndLock);
        mRunningTracks = mSources.size();
    }
    for (size_t i = 0; i < mSources.size(); ++i) {
        try {
            mThreads.emplace_back(&FileWriter::runTrack, this, i, mSources[i]);
        } catch (const std::system_error& error) {
            reportError(-error.code().value());
            endTrackThread();
        }
    }
}

void FileWriter::runTrack(size_t index, const sp<MediaSource>& source) {
    while (!mFailed) {
        MediaBufferBase* buffer = nullptr;
        status_t result = source->read(&buffer);
        if (result == ERROR_END_OF_STREAM) {
            result = mFile->endTrack(index);
            if (result != OK) reportError(result);
            break;
        }
        if (result == OK && buffer != nullptr) {
            result = write(index, buffer);
            // The source has only this buffer and waits for it.
            buffer->release();
        }
        // The source is not read any more, which its producer must be told.
        if (result != OK) reportError(result);
    }
    endTrackThread();
}

void FileWriter::endTrackThread() {
    Mutex::Autolock lock(mEndLock);
    --mRunningTracks;
    mTrackEnded.broadcast();
}

bool FileWriter::reachedEOS() {
    Mutex::Autolock lock(mEndLock);
    const nsecs_t deadline = deadlineAfter(kEndWaitUs);
    while (mRunningTracks > 0 && waitUntil(deadline, mTrackEnded, mEndLock)) {
    }
    return mRunningTracks == 0;
}

status_t FileWriter::write(size_t index, MediaBufferBase* buffer) {
    const auto* data = static_cast<const uint8_t*>(buffer->data()) + buffer->range_offset();
    const MetaDataBase& meta = buffer->meta_data();
    int32_t isConfig = 0;
    meta.findInt32(kKeyIsCodecConfig, &isConfig);
    if (isConfig != 0) return mFile->setCodecConfig(index, data, buffer->range_length());

    // Nothing here is reordered, so the presentation time is the decoding time as well.
    int64_t timeUs = 0;
    if (!meta.findInt64(kKeyTime, &timeUs)) return ERROR_MALFORMED;
    int32_t isSync = 0;
    meta.findInt32(kKeyIsSyncFrame, &isSync);
    return mFile->writeSample(index, data, buffer->range_length(), timeUs, isSync != 0);
}

void FileWriter::reportError(status_t error) {
    if (mFailed.exchange(true)) return;
    if (mListener != nullptr) mListener->notify(MEDIA_RECORDER_EVENT_ERROR, error, 0);
}

status_t FileWriter::stop() {
    Mutex::Autolock lock(mLock);
    if (mState == State::kStarted) {
        for (const auto& source : mSources) source->stop();
        for (std::thread& thread : mThreads) thread.join();
        mThreads.clear();
        mResult = mStartResult == OK ? mFile->finish(mUuidBoxes) : mStartResult;
    }
    mState = State::kStopped;
    mFile = nullptr;
    mSources.clear();
    return mResult;
}

void FileWriter::setUuidData(const uint8_t* data, size_t size) {
    Mutex::Autolock lock(mLock);
    mUuidBoxes = makeUuidBoxes(data, size);
}

}  // namespace

sp<MediaWriter> createFileWriter(int fd, const HostOptions& options,
                                 const std::shared_ptr<SessionTimeline>& session) {
    return new FileWriter(fd, options.fastStart, session);
}

void setWriterUuidData(const sp<MediaWriter>& writer, const unsigned char* data, int size) {
    auto* fileWriter = dynamic_cast<FileWriter*>(writer.get());
    if (fileWriter == nullptr || data == nullptr || size <= 0) return;
    fileWriter->setUuidData(data, static_cast<size_t>(size));
}

}  // namespace qmmediaeditor
}  // namespace android
