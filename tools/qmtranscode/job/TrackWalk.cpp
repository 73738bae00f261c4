#include <media/stagefright/MediaErrors.h>
#include <qmtranscode/job/MediaFile.h>
#include <qmtranscode/job/TrackWalk.h>

#include <algorithm>

namespace android::qmmediaeditor::cli {

namespace {

constexpr size_t kFirstBufferBytes = size_t{1} << 20;
constexpr size_t kLargestBufferBytes = size_t{1} << 28;

sp<QmMediaExtractorWrapper> openTracks(int fd, const std::vector<size_t>& tracks) {
    const sp<QmMediaExtractorWrapper> extractor = openExtractor(fd).extractor;
    if (extractor == nullptr) return nullptr;
    for (size_t track : tracks) {
        if (extractor->selectTrack(track) != OK) return nullptr;
    }
    return extractor;
}

// Makes the buffer larger until the sample fits.
bool readWhole(const sp<QmMediaExtractorWrapper>& extractor, sp<ABuffer>* buffer) {
    while (true) {
        const status_t err = extractor->readSampleData(*buffer);
        if (err != ERROR_BUFFER_TOO_SMALL) return err == OK;
        const size_t larger = (*buffer)->capacity() * 2;
        if (larger > kLargestBufferBytes) return false;
        *buffer = new ABuffer(larger);
        if ((*buffer)->capacity() < larger) return false;
    }
}

}  // namespace

std::optional<std::vector<TrackSamples>> walkTracks(int fd, const std::vector<size_t>& tracks) {
    const sp<QmMediaExtractorWrapper> extractor = openTracks(fd, tracks);
    if (extractor == nullptr) return std::nullopt;
    std::vector<TrackSamples> samples(tracks.size());
    sp<ABuffer> buffer = new ABuffer(kFirstBufferBytes);
    size_t index = 0;
    status_t status;
    for (; (status = extractor->getSampleTrackIndex(&index)) == OK; extractor->advance()) {
        const auto found = std::find(tracks.begin(), tracks.end(), index);
        int64_t timeUs = 0;
        if (found == tracks.end() || !readWhole(extractor, &buffer)) return std::nullopt;
        if (extractor->getSampleTime(&timeUs) != OK) return std::nullopt;
        int64_t durationUs = 0;
        sp<MetaData> meta;
        if (extractor->getSampleMeta(&meta) == OK) meta->findInt64(kKeyDuration, &durationUs);
        TrackSamples& track = samples[static_cast<size_t>(found - tracks.begin())];
        if (track.count == 0 || timeUs < track.firstUs) track.firstUs = timeUs;
        ++track.count;
        track.bytes += static_cast<int64_t>(buffer->size());
        track.endUs = std::max(track.endUs, timeUs + durationUs);
        track.timesUs.push_back(timeUs);
    }
    if (status != ERROR_END_OF_STREAM) return std::nullopt;
    return samples;
}

std::optional<int64_t> seekPointUs(int fd, const std::vector<size_t>& tracks, int64_t timeUs) {
    const sp<QmMediaExtractorWrapper> extractor = openTracks(fd, tracks);
    if (extractor == nullptr) return std::nullopt;
    int64_t pointUs = 0;
    if (extractor->seekTo(timeUs, MediaTrack::ReadOptions::SEEK_PREVIOUS_SYNC) != OK ||
        extractor->getSampleTime(&pointUs) != OK) {
        return std::nullopt;
    }
    return pointUs;
}

}  // namespace android::qmmediaeditor::cli
