#include <editorutils/MediaEditorDefs.h>
#include <errno.h>
#include <host/codec/PacketChecksum.h>
#include <media/stagefright/MediaErrors.h>
#include <media/stagefright/foundation/MediaDefs.h>
#include <qmtranscode/job/MediaFile.h>
#include <sha2.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <iterator>

namespace android::qmmediaeditor::cli {

namespace {

std::string readLanguage(const sp<AMessage>& format) {
    AString language;
    return format->findString("language", &language) ? language.c_str() : "";
}

AudioTrack readAudioTrack(const sp<AMessage>& format, size_t index, const AString& mime) {
    AudioTrack track;
    track.index = index;
    track.mime = mime.c_str();
    format->findInt64("durationUs", &track.durationUs);
    format->findInt32("sample-rate", &track.sampleRate);
    format->findInt32("channel-count", &track.channels);
    format->findInt32("bitrate", &track.bitrate);
    track.language = readLanguage(format);
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
    format->findInt64("frame-rate-numerator", &track.constantRate.numerator);
    format->findInt64("frame-rate-denominator", &track.constantRate.denominator);
    float average = 0;
    format->findFloat("average-frame-rate", &average);
    track.averageFrameRate = average > 0 ? double{average} : static_cast<double>(track.frameRate);
    format->findInt32("bitrate", &track.bitrate);
    track.language = readLanguage(format);
    int32_t flag = 0;
    track.isInterlaced = format->findInt32("is-interlaced", &flag);
    track.hasOutputFrames = format->findInt32("has-output-frames", &flag);
    return track;
}

AnyTrack describeTrack(const sp<AMessage>& format, const AString& mime) {
    AString own;
    AString language;
    AnyTrack track;
    track.isLeftOut = format->findString("left-out-mime", &own);
    track.mime = track.isLeftOut ? own.c_str() : mime.c_str();
    if (format->findString("language", &language)) track.language = language.c_str();
    return track;
}

RecordingMetadata readMetadata(const sp<QmMediaExtractorWrapper>& extractor) {
    sp<AMessage> format;
    sp<RefBase> found;
    if (extractor->getFileFormat(&format) != OK ||
        !format->findObject(MetadataMessage::kKey, &found)) {
        return {};
    }
    return static_cast<MetadataMessage*>(found.get())->content;
}

bool hasEstimatedDuration(const sp<QmMediaExtractorWrapper>& extractor) {
    sp<AMessage> format;
    int32_t isEstimated = 0;
    return extractor->getFileFormat(&format) == OK &&
           format->findInt32("duration-is-estimated", &isEstimated) && isEstimated != 0;
}

std::string readUuidData(const sp<QmMediaExtractorWrapper>& extractor) {
    sp<AMessage> format;
    sp<ABuffer> data;
    if (extractor->getFileFormat(&format) != OK || !format->findBuffer("uuid-data", &data)) {
        return "";
    }
    return std::string(reinterpret_cast<const char*>(data->data()), data->size());
}

constexpr size_t kInitialBufferBytes = size_t{1} << 20;
constexpr size_t kMaxBufferBytes = size_t{1} << 28;

sp<QmMediaExtractorWrapper> openTracks(int fd, const std::vector<size_t>& tracks) {
    const sp<QmMediaExtractorWrapper> extractor = openExtractor(fd).extractor;
    if (extractor == nullptr) return nullptr;
    for (size_t track : tracks) {
        if (extractor->selectTrack(track) != OK) return nullptr;
    }
    return extractor;
}

PacketForm packetForm(const sp<QmMediaExtractorWrapper>& extractor, size_t track) {
    sp<AMessage> format;
    AString mime;
    const bool isAvc = extractor->getTrackFormat(track, &format) == OK &&
                       format->findString("mime", &mime) && mime == MEDIA_MIMETYPE_VIDEO_AVC;
    return isAvc ? PacketForm::kLengths : PacketForm::kWhole;
}

// Enlarges the buffer until the sample fits.
bool readSample(const sp<QmMediaExtractorWrapper>& extractor, sp<ABuffer>* buffer) {
    while (true) {
        const status_t err = extractor->readSampleData(*buffer);
        if (err != ERROR_BUFFER_TOO_SMALL) return err == OK;
        const size_t larger = (*buffer)->capacity() * 2;
        if (larger > kMaxBufferBytes) return false;
        *buffer = new ABuffer(larger);
        if ((*buffer)->capacity() < larger) return false;
    }
}

}  // namespace

int64_t MediaFile::durationUs() const {
    return std::max(audio ? audio->durationUs : 0, video ? video->durationUs : 0);
}

OpenedExtractor openExtractor(int fd) {
    struct stat status {};
    if (fstat(fd, &status) != 0) return {nullptr, -errno, 0};
    sp<QmMediaExtractorWrapper> extractor = new QmMediaExtractorWrapper();
    const status_t result = extractor->setDataSource(fd, 0, status.st_size);
    if (result != OK) return {nullptr, result, status.st_size};
    return {extractor, OK, status.st_size};
}

MediaFileResult readMediaFile(int fd) {
    const OpenedExtractor opened = openExtractor(fd);
    if (opened.extractor == nullptr) return {std::nullopt, opened.status};
    MediaFile file;
    file.sizeBytes = opened.sizeBytes;
    file.uuidData = readUuidData(opened.extractor);
    file.metadata = readMetadata(opened.extractor);
    file.isDurationEstimated = hasEstimatedDuration(opened.extractor);
    for (size_t i = 0; i < opened.extractor->countTracks(); ++i) {
        sp<AMessage> format;
        AString mime;
        const status_t result = opened.extractor->getTrackFormat(i, &format);
        if (result != OK) return {std::nullopt, result};
        if (!format->findString("mime", &mime)) return {std::nullopt, ERROR_MALFORMED};
        file.tracks.push_back(describeTrack(format, mime));
        if (!file.audio && mime.startsWithIgnoreCase("audio/") &&
            !mime.equalsIgnoreCase(MEDIAEDITOR_MIMETYPE_AUDIO_NOTSUPPORTED)) {
            file.audio = readAudioTrack(format, i, mime);
        }
        if (!file.video && mime.startsWithIgnoreCase("video/") &&
            !mime.equalsIgnoreCase(MEDIAEDITOR_MIMETYPE_VIDEO_NOTSUPPORTED)) {
            file.video = readVideoTrack(format, i, mime);
        }
    }
    return {file, OK};
}

std::optional<std::vector<TrackSamples>> readSamples(int fd, const std::vector<size_t>& tracks) {
    const sp<QmMediaExtractorWrapper> extractor = openTracks(fd, tracks);
    if (extractor == nullptr) return std::nullopt;
    std::vector<TrackSamples> samples(tracks.size());
    std::vector<PacketForm> forms;
    forms.reserve(tracks.size());
    for (const size_t track : tracks) forms.push_back(packetForm(extractor, track));
    sp<ABuffer> buffer = new ABuffer(kInitialBufferBytes);
    size_t index = 0;
    status_t status;
    for (; (status = extractor->getSampleTrackIndex(&index)) == OK; extractor->advance()) {
        const auto found = std::find(tracks.begin(), tracks.end(), index);
        int64_t timeUs = 0;
        if (found == tracks.end() || !readSample(extractor, &buffer)) return std::nullopt;
        int64_t durationUs = 0;
        sp<MetaData> meta;
        if (extractor->getSampleMeta(&meta) != OK || !meta->findInt64(kKeyTime, &timeUs)) {
            return std::nullopt;
        }
        meta->findInt64(kKeyDuration, &durationUs);
        const auto at = static_cast<size_t>(found - tracks.begin());
        TrackSamples& track = samples[at];
        if (track.count == 0 || timeUs < track.firstUs) track.firstUs = timeUs;
        ++track.count;
        track.bytes += static_cast<int64_t>(buffer->size());
        track.endUs = std::max(track.endUs, timeUs + durationUs);
        track.timesUs.push_back(timeUs);
        track.checksums.push_back(packetChecksum(buffer->data(), buffer->size(), forms[at]));
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

std::string codecName(const std::string& mime) {
    static const struct {
        const char* mime;
        const char* name;
    } kNames[] = {
        {MEDIA_MIMETYPE_VIDEO_AVC, "avc"},       {MEDIA_MIMETYPE_VIDEO_H263, "h263"},
        {MEDIA_MIMETYPE_VIDEO_MPEG4, "mpeg4"},   {MEDIA_MIMETYPE_AUDIO_AAC, "aac"},
        {MEDIA_MIMETYPE_AUDIO_AMR_NB, "amr-nb"}, {MEDIA_MIMETYPE_AUDIO_AMR_WB, "amr-wb"},
    };
    const auto* found = std::find_if(std::begin(kNames), std::end(kNames),
                                     [&mime](const auto& entry) { return mime == entry.mime; });
    return found == std::end(kNames) ? mime : found->name;
}

std::string sha256(const std::string& bytes) {
    char text[SHA256_DIGEST_STRING_LENGTH];
    SHA256Data(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), text);
    return text;
}

}  // namespace android::qmmediaeditor::cli
