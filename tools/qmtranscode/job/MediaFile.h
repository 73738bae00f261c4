// The tracks of a media file, and their samples, as the platform's extractor reads them.
#pragma once

#include <TranscodeTypes.h>
#include <editorutils/QmMediaExtractorWrapper.h>
#include <host/codec/FrameRate.h>
#include <host/codec/RecordingMetadata.h>
#include <stddef.h>
#include <stdint.h>
#include <utils/Errors.h>

#include <optional>
#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

// Numbers that the file does not contain are 0.
struct AudioTrack {
    size_t index = 0;
    std::string mime;
    int64_t durationUs = 0;
    int32_t sampleRate = 0;  // Hz
    int32_t channels = 0;
    int32_t bitrate = 0;   // bits per second
    std::string language;  // ISO 639-2/T; empty if unknown
};

struct VideoTrack {
    size_t index = 0;
    std::string mime;
    int64_t durationUs = 0;
    int32_t width = 0;  // pixels, before rotation
    int32_t height = 0;
    int32_t rotation = 0;         // degrees clockwise
    int32_t frameRate = 0;        // frames per second
    FrameRate constantRate;       // 0 unless it is constant
    int32_t bitrate = 0;          // bits per second
    std::string language;         // ISO 639-2/T; empty if unknown
    double averageFrameRate = 0;  // frames per second
    bool isInterlaced = false;
    // 8 bit, 4:2:0, of standard dynamic range, with square pixels.
    bool hasOutputFrames = false;
};

struct AnyTrack {
    std::string mime;
    std::string language;    // as the file has it, mostly by ISO 639-2; may be empty
    bool isLeftOut = false;  // by HostOptions::tracks
};

struct MediaFile {
    int64_t sizeBytes = 0;
    // The first track of each type that can be decoded, which are those that a session uses.
    std::optional<AudioTrack> audio;
    std::optional<VideoTrack> video;
    // In the order of the file.
    std::vector<AnyTrack> tracks;
    // The payload of its uuid boxes.
    std::string uuidData;
    RecordingMetadata metadata;

    // The durations do not follow from the whole file, which may be longer.
    bool isDurationEstimated = false;
    // Of the longer track.
    int64_t durationUs() const;
};

struct OpenedExtractor {
    sp<QmMediaExtractorWrapper> extractor;  // null unless status is OK
    // ERROR_UNSUPPORTED if it is not a media file; ERROR_IO, NO_MEMORY or -errno if another try may
    // succeed.
    status_t status = OK;
    int64_t sizeBytes = 0;
};
OpenedExtractor openExtractor(int fd);

struct MediaFileResult {
    std::optional<MediaFile> media;  // nothing unless status is OK
    status_t status = OK;            // as openExtractor's
};
// `fd` may be closed afterwards; its position does not change.
MediaFileResult readMediaFile(int fd);

// Times are microseconds.
struct TrackSamples {
    int64_t count = 0;
    int64_t bytes = 0;
    int64_t firstUs = 0;  // the lowest timestamp
    int64_t endUs = 0;    // the end of the last sample
    // Presentation timestamps in the order of the file.
    std::vector<int64_t> timesUs;
    // As packetChecksum(), of each sample.
    std::vector<uint64_t> checksums = {};
};

// Reads all data of the tracks with these indexes; a result for each. Nothing when a sample cannot
// be read.
std::optional<std::vector<TrackSamples>> readSamples(int fd, const std::vector<size_t>& tracks);

// The timestamp of the sample at which decoding must start to get the frame at `timeUs`.
std::optional<int64_t> seekPointUs(int fd, const std::vector<size_t>& tracks, int64_t timeUs);

// "avc" for the MIME type of an output codec; for others, the MIME type.
std::string codecName(const std::string& mime);

// SHA-256 (FIPS 180-4) in hexadecimal digits, as sha256sum prints it.
std::string sha256(const std::string& bytes);

}  // namespace android::qmmediaeditor::cli
