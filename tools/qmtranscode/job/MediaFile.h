// What a media file holds, as the platform's extractor sees it.
#pragma once

#include <TranscodeTypes.h>
#include <editorutils/QmMediaExtractorWrapper.h>
#include <stddef.h>
#include <stdint.h>
#include <utils/Errors.h>

#include <optional>
#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

// Numbers that the file does not tell are 0.
struct AudioTrack {
    size_t index = 0;
    std::string mime;
    int64_t durationUs = 0;
    int32_t sampleRate = 0;  // Hz
    int32_t channels = 0;
    int32_t bitrate = 0;  // bits a second
};

struct VideoTrack {
    size_t index = 0;
    std::string mime;
    int64_t durationUs = 0;
    int32_t width = 0;  // pixels, before rotation
    int32_t height = 0;
    int32_t rotation = 0;   // degrees clockwise
    int32_t frameRate = 0;  // frames a second
    int32_t bitrate = 0;    // bits a second
};

struct MediaFile {
    int64_t sizeBytes = 0;
    // The first track of each kind that can be decoded here: those that a session takes.
    std::optional<AudioTrack> audio;
    std::optional<VideoTrack> video;
    // The MIME types of all tracks, in the order of the file.
    std::vector<std::string> mimes;
    // The payload of its uuid boxes.
    std::string uuidData;

    // The longer one's.
    int64_t durationUs() const;
};

struct OpenedExtractor {
    sp<QmMediaExtractorWrapper> extractor;  // null unless status is OK
    // ERROR_UNSUPPORTED for what is not a media file; ERROR_IO, NO_MEMORY or -errno for what
    // another try may open.
    status_t status = OK;
    int64_t sizeBytes = 0;
};
OpenedExtractor openExtractor(int fd);

struct ReadMediaFile {
    std::optional<MediaFile> media;  // nothing unless status is OK
    status_t status = OK;            // as openExtractor's
};
// `fd` may be closed afterwards; its position is left alone.
ReadMediaFile readMediaFile(int fd);
}  // namespace android::qmmediaeditor::cli
