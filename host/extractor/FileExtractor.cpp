#include "host/extractor/FileExtractor.h"

#include <errno.h>
#include <media/stagefright/MediaErrors.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <memory>
#include <utility>

#include "host/codec/OutputSequencer.h"
#include "host/extractor/InputProbe.h"
#include "host/extractor/TrackReader.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

// Longer than any recording.
constexpr int64_t kMaxSeekUs = INT64_C(1000000000000000);
// No recording pauses for so long in all of its tracks.
constexpr int64_t kMaxStepUs = INT64_C(24) * 3600 * 1000000;
constexpr int64_t kUnknownUs = INT64_MIN;

class FileExtractor final : public ExtractorBackend {
public:
    FileExtractor(const HostOptions& options, std::shared_ptr<SessionTimeline> session,
                  std::shared_ptr<InputHandover> handover)
        : mOptions(options), mSession(std::move(session)), mHandover(std::move(handover)) {}

    status_t setDataSource(int fd, int64_t offset, int64_t length) override;
    size_t countTracks() override { return mInfo.tracks.size(); }
    status_t getTrackFormat(size_t index, sp<AMessage>* format) override;
    status_t getFileFormat(sp<AMessage>* format) override;
    status_t selectTrack(size_t index) override;
    status_t getSampleTrackIndex(size_t* trackIndex) override;
    status_t readSampleData(const sp<ABuffer>& buffer) override;
    status_t getSampleTime(int64_t* timeUs) override;
    status_t getSampleMeta(sp<MetaData>* meta) override;
    status_t advance() override;
    status_t seekTo(int64_t timeUs, SeekMode mode) override;

protected:
    ~FileExtractor() override;

private:
    int64_t originUs() const;
    // Sets mCurrent to the selected track with the next sample. OK, ERROR_END_OF_STREAM, or why a
    // track could not be read.
    status_t findCurrent();
    void announceCurrent();
    const TrackReader& current() const { return *mReaders.at(mCurrent); }

    const HostOptions mOptions;
    const std::shared_ptr<SessionTimeline> mSession;  // may be null
    const std::shared_ptr<InputHandover> mHandover;   // may be null
    InputHandover::File mIdentity;
    std::shared_ptr<const DescriptorFile> mFile;
    InputInfo mInfo;
    std::map<size_t, std::unique_ptr<TrackReader>> mReaders;  // by track
    size_t mCurrent = 0;
    bool mHasCurrent = false;
    // Of the current sample, or of the one before it; unknown after a seek.
    int64_t mTimeUs = kUnknownUs;
    // Error of damaged timestamps.
    int64_t mDamageUs = 0;
};

FileExtractor::~FileExtractor() {
    // Readers change the state of the tracks' sources.
    if (mHandover == nullptr || mFile == nullptr || !mReaders.empty() || !mInfo.isUnshared())
        return;
    mHandover->put(mIdentity, std::move(mInfo));
}

status_t FileExtractor::setDataSource(int fd, int64_t offset, int64_t length) {
    if (mFile != nullptr) return INVALID_OPERATION;
    const DescriptorFile::Opened opened =
        DescriptorFile::openForReading(fd, offset, length, mOptions.observer);
    if (opened.file == nullptr) return opened.status;
    struct stat status {};
    if (fstat(fd, &status) != 0) return -errno;
    mIdentity = InputHandover::File(status, offset, length);
    std::optional<InputInfo> known =
        mHandover == nullptr ? std::nullopt : mHandover->take(mIdentity);
    if (known) {
        mInfo = std::move(*known);
    } else if (const status_t result = probeInput(opened.file, mOptions, &mInfo); result != OK) {
        return result;
    }
    mFile = opened.file;
    if (mSession != nullptr) mSession->metadata().set(mInfo.metadata);
    return OK;
}

status_t FileExtractor::getTrackFormat(size_t index, sp<AMessage>* format) {
    if (index >= mInfo.tracks.size()) return BAD_INDEX;
    *format = mInfo.tracks[index].format;
    return OK;
}

status_t FileExtractor::getFileFormat(sp<AMessage>* format) {
    if (mFile == nullptr) return NO_INIT;
    *format = mInfo.format;
    return OK;
}

status_t FileExtractor::selectTrack(size_t index) {
    if (index >= mInfo.tracks.size()) return BAD_INDEX;
    if (mReaders.count(index) != 0) return OK;
    if (mInfo.tracks[index].source == nullptr) return ERROR_UNSUPPORTED;
    TrackReader::Opened opened = TrackReader::open(mFile, mInfo.tracks[index]);
    if (opened.reader == nullptr) return opened.status;
    mReaders[index] = std::move(opened.reader);
    if (mSession != nullptr) {
        mSession->metadata().setLanguage(mInfo.tracks[index].isVideo, mInfo.tracks[index].language);
    }
    return opened.status;
}

status_t FileExtractor::getSampleTrackIndex(size_t* trackIndex) {
    if (const status_t status = findCurrent(); status != OK) return status;
    *trackIndex = mCurrent;
    return OK;
}

status_t FileExtractor::readSampleData(const sp<ABuffer>& buffer) {
    if (const status_t status = findCurrent(); status != OK) return status;
    const AVPacket& packet = *mReaders[mCurrent]->head();
    const auto size = static_cast<size_t>(packet.size);
    if (size > buffer->capacity()) return ERROR_BUFFER_TOO_SMALL;
    memcpy(buffer->base(), packet.data, size);
    buffer->setRange(0, size);
    return OK;
}

status_t FileExtractor::getSampleTime(int64_t* timeUs) {
    if (const status_t status = findCurrent(); status != OK) return status;
    *timeUs = mTimeUs;
    return OK;
}

status_t FileExtractor::getSampleMeta(sp<MetaData>* meta) {
    if (const status_t status = findCurrent(); status != OK) return status;
    *meta = new MetaData;
    (*meta)->setInt64(kKeyTime, current().presentationTimeUs() - originUs() - mDamageUs);
    if (const int64_t durationUs = current().durationUs(); durationUs > 0) {
        (*meta)->setInt64(kKeyDuration, durationUs);
    }
    const bool sync = (mReaders[mCurrent]->head()->flags & AV_PKT_FLAG_KEY) != 0;
    (*meta)->setInt32(kKeyIsSyncFrame, sync ? 1 : 0);
    return OK;
}

status_t FileExtractor::advance() {
    if (const status_t status = findCurrent(); status != OK) return status;
    mReaders[mCurrent]->advance();
    mHasCurrent = false;
    return OK;
}

status_t FileExtractor::seekTo(int64_t timeUs, SeekMode mode) {
    // Cutting needs the sample before the cut; no caller uses the other modes.
    if (mode != SeekMode::SEEK_PREVIOUS_SYNC) return ERROR_UNSUPPORTED;
    if (mReaders.empty()) return INVALID_OPERATION;
    // Decoders compute with the time, so it stays away from the ends of the range.
    const int64_t startUs = std::min(timeUs, kMaxSeekUs);
    mInfo.tracks[mReaders.begin()->first].source->sequencer()->beginSegment(startUs);
    mHasCurrent = false;
    mDamageUs = 0;
    mTimeUs = kUnknownUs;
    const int64_t targetUs = std::max<int64_t>(startUs, 0) + originUs();
    for (const auto& entry : mReaders) entry.second->seek(targetUs);
    return OK;
}

// Recordings rarely begin at 0. The earliest selected track is moved to 0; the offset between the
// tracks is kept. Tracks that are left out count, so that times do not depend on the choice.
int64_t FileExtractor::originUs() const {
    int64_t originUs = INT64_MAX;
    for (const auto& entry : mReaders) {
        originUs = std::min(originUs, mInfo.tracks[entry.first].startUs);
    }
    if (originUs == INT64_MAX) return 0;
    for (const TrackInfo& track : mInfo.tracks) {
        if (track.isLeftOut) originUs = std::min(originUs, track.startUs);
    }
    return mInfo.zeroIsFixed ? std::max<int64_t>(originUs, 0) : originUs;
}

status_t FileExtractor::findCurrent() {
    if (mHasCurrent) return OK;
    int64_t earliestUs = 0;
    for (const auto& entry : mReaders) {
        const bool hasHead = entry.second->head() != nullptr;
        if (const status_t status = entry.second->status(); status != OK) {
            mHasCurrent = false;
            return status;
        }
        if (!hasHead) continue;
        const int64_t timeUs = entry.second->orderTimeUs();
        const bool audioFirst = timeUs == earliestUs && !mInfo.tracks[entry.first].isVideo;
        if (mHasCurrent && timeUs >= earliestUs && !audioFirst) continue;
        mCurrent = entry.first;
        mHasCurrent = true;
        earliestUs = timeUs;
    }
    if (!mHasCurrent) return ERROR_END_OF_STREAM;
    announceCurrent();
    return OK;
}

// Tells the decoder the properties of the sample. A timestamp that is days away is damaged, and the
// gap would be filled with as much silence: the sample is put right behind the one before it.
void FileExtractor::announceCurrent() {
    const TrackReader& reader = current();
    const int64_t timeUs = reader.orderTimeUs() - originUs();
    if (mTimeUs != kUnknownUs && std::llabs(timeUs - mDamageUs - mTimeUs) > kMaxStepUs) {
        mDamageUs = timeUs - mTimeUs;
    }
    mTimeUs = timeUs - mDamageUs;
    if (reader.isBehindDiscontinuity() && mOptions.observer != nullptr) {
        mOptions.observer->onDiscontinuity();
    }
    const int64_t offsetUs = originUs() + mDamageUs;
    const TrackInfo& currentTrack = mInfo.tracks[mCurrent];
    if (currentTrack.isVideo) currentTrack.source->sequencer()->addVideo(mTimeUs);
    currentTrack.source->announce(mTimeUs, reader.headProperties(offsetUs));
    for (const auto& entry : mReaders) {
        if (entry.second->head() == nullptr) continue;
        const TrackInfo& track = mInfo.tracks[entry.first];
        track.source->advanceTo(mTimeUs);
        if (!track.ending || (track.ending->lastDts && !entry.second->isLast())) continue;
        track.source->setEnd(track.ending->endUs - offsetUs);
    }
}

}  // namespace

sp<ExtractorBackend> createFileExtractor(const HostOptions& options,
                                         const std::shared_ptr<SessionTimeline>& session,
                                         const std::shared_ptr<InputHandover>& handover) {
    return new FileExtractor(options, session, handover);
}

}  // namespace qmmediaeditor
}  // namespace android
