#include <editorutils/MediaEditorDefs.h>
#include <errno.h>
#include <media/stagefright/MediaErrors.h>
#include <qmtranscode/job/MediaFile.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>

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

OpenedExtractor openExtractor(int fd) {
    struct stat status {};
    if (fstat(fd, &status) != 0) return {nullptr, -errno, 0};
    sp<QmMediaExtractorWrapper> extractor = new QmMediaExtractorWrapper();
    const status_t result = extractor->setDataSource(fd, 0, status.st_size);
    if (result != OK) return {nullptr, result, status.st_size};
    return {extractor, OK, status.st_size};
}

ReadMediaFile readMediaFile(int fd) {
    const OpenedExtractor opened = openExtractor(fd);
    if (opened.extractor == nullptr) return {std::nullopt, opened.status};
    MediaFile file;
    file.sizeBytes = opened.sizeBytes;
    file.uuidData = readUuidData(opened.extractor);
    for (size_t i = 0; i < opened.extractor->countTracks(); ++i) {
        sp<AMessage> format;
        AString mime;
        const status_t result = opened.extractor->getTrackFormat(i, &format);
        if (result != OK) return {std::nullopt, result};
        if (!format->findString("mime", &mime)) return {std::nullopt, ERROR_MALFORMED};
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
    return {file, OK};
}

}  // namespace android::qmmediaeditor::cli
