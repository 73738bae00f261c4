#include <editorutils/MediaEditorDefs.h>
#include <qmtranscode/MediaFile.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <limits>

namespace android::qmmediaeditor::cli {

namespace {

AudioTrack readAudioTrack(const sp<AMessage>& format, size_t index, const AString& mime) {
    AudioTrack track;
    track.index = index;
    track.mime = mime.c_str();
    format->findInt64("durationUs", &track.durationUs);
    format->findInt32("sample-rate", &track.sampleRate);
    format->findInt32("channel-count", &track.channels);
    format->findInt32("bitrate", &track.bitrate);
    return track;
}

VideoTrack readVideoTrack(const sp<AMessage>& format, size_t index, const AString& mime) {
    VideoTrack track;
    track.index = index;
    track.mime = mime.c_str();
    format->findInt64("durationUs", &track.durationUs);
    format->findInt32("width", &track.width);
    format->findInt32("height", &track.height);
    int32_t left = 0;
    int32_t top = 0;
    int32_t right = 0;
    int32_t bottom = 0;
    if (format->findRect("crop", &left, &top, &right, &bottom)) {
        track.width = right + 1 - left;
        track.height = bottom + 1 - top;
    }
    format->findInt32("rotation-degrees", &track.rotation);
    format->findInt32("frame-rate", &track.frameRate);
    format->findInt32("bitrate", &track.bitrate);
    return track;
}

std::string readUuidData(const sp<QmMediaExtractorWrapper>& extractor) {
    sp<AMessage> format;
    sp<ABuffer> data;
    if (extractor->getFileFormat(&format) != OK || !format->findBuffer("uuid-data", &data)) {
        return "";
    }
    return std::string(reinterpret_cast<const char*>(data->data()), data->size());
}

}  // namespace

int64_t MediaFile::durationUs() const {
    return std::max(audio ? audio->durationUs : 0, video ? video->durationUs : 0);
}

sp<QmMediaExtractorWrapper> openExtractor(int fd, int64_t* sizeBytes) {
    struct stat status {};
    if (fstat(fd, &status) != 0) return nullptr;
    *sizeBytes = status.st_size;
    sp<QmMediaExtractorWrapper> extractor = new QmMediaExtractorWrapper();
    if (extractor->setDataSource(fd, 0, status.st_size) != OK) return nullptr;
    return extractor;
}

std::optional<MediaFile> readMediaFile(int fd) {
    MediaFile file;
    const sp<QmMediaExtractorWrapper> extractor = openExtractor(fd, &file.sizeBytes);
    if (extractor == nullptr) return std::nullopt;
    file.uuidData = readUuidData(extractor);
    for (size_t i = 0; i < extractor->countTracks(); ++i) {
        sp<AMessage> format;
        AString mime;
        if (extractor->getTrackFormat(i, &format) != OK || !format->findString("mime", &mime)) {
            return std::nullopt;
        }
        file.mimes.emplace_back(mime.c_str());
        if (!file.audio && mime.startsWithIgnoreCase("audio/") &&
            !mime.equalsIgnoreCase(MEDIAEDITOR_MIMETYPE_AUDIO_NOTSUPPORTED)) {
            file.audio = readAudioTrack(format, i, mime);
        }
        if (!file.video && mime.startsWithIgnoreCase("video/") &&
            !mime.equalsIgnoreCase(MEDIAEDITOR_MIMETYPE_VIDEO_NOTSUPPORTED)) {
            file.video = readVideoTrack(format, i, mime);
        }
    }
    return file;
}

std::optional<int64_t> measureTrack(int fd, const MediaFile& file, size_t trackIndex,
                                    const std::vector<TrimPeriod>& periods) {
    int64_t sizeBytes = 0;
    const sp<QmMediaExtractorWrapper> extractor = openExtractor(fd, &sizeBytes);
    if (extractor == nullptr) return std::nullopt;
    // The tracks' common beginning is time 0.
    if (file.audio && extractor->selectTrack(file.audio->index) != OK) return std::nullopt;
    if (file.video && extractor->selectTrack(file.video->index) != OK) return std::nullopt;
    const bool isVideo = file.video && file.video->index == trackIndex;

    const TrimPeriod whole{0, std::numeric_limits<int64_t>::max()};
    const std::vector<TrimPeriod> kept = periods.empty() ? std::vector<TrimPeriod>{whole} : periods;
    struct Covered {
        int64_t fromUs = std::numeric_limits<int64_t>::max();
        int64_t toUs = -1;  // both from the period's start
    };
    std::vector<Covered> covered(kept.size());
    size_t track = 0;
    for (; extractor->getSampleTrackIndex(&track) == OK; extractor->advance()) {
        if (track != trackIndex) continue;
        int64_t timeUs = 0;
        int64_t durationUs = 0;
        sp<MetaData> meta;
        if (extractor->getSampleTime(&timeUs) != OK) break;
        if (extractor->getSampleMeta(&meta) == OK) meta->findInt64(kKeyDuration, &durationUs);
        for (size_t i = 0; i < kept.size(); ++i) {
            const TrimPeriod& period = kept[i];
            const int64_t endUs = std::min(timeUs + durationUs, period.mEndUs);
            if (endUs < period.mStartUs || timeUs >= period.mEndUs) continue;
            const int64_t fromUs = std::max(timeUs, period.mStartUs) - period.mStartUs;
            covered[i].fromUs = std::min(covered[i].fromUs, fromUs);
            covered[i].toUs = std::max(covered[i].toUs, endUs - period.mStartUs);
        }
    }
    std::optional<int64_t> sumUs;
    for (const Covered& each : covered) {
        if (each.toUs < 0) continue;
        if (!sumUs) sumUs = isVideo ? -each.fromUs : 0;
        *sumUs += each.toUs;
    }
    return sumUs;
}

}  // namespace android::qmmediaeditor::cli
