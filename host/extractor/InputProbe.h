// Determines the tracks and properties of a file before its samples are read. Private to the
// extractor.
#pragma once

#include <host/Host.h>
#include <media/stagefright/foundation/AMessage.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>
#include <utils/Errors.h>
#include <utils/Mutex.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/codec/RecordingMetadata.h"
#include "host/codec/TrackSource.h"
#include "host/extractor/AviTimestamps.h"
#include "host/extractor/RawVideo.h"
#include "host/extractor/TimestampRepair.h"
#include "host/io/DescriptorFile.h"
#include "host/io/IsoBoxes.h"

namespace android {
namespace qmmediaeditor {

struct TrackInfo {
    sp<AMessage> format;
    // Null for a track that cannot be selected.
    sp<TrackSource> source;
    bool isVideo = false;
    bool isLeftOut = false;  // by HostOptions::tracks
    int streamIndex = 0;
    // As languageCode() returns it.
    std::string language;
    // The stream whose index is used to find this track's samples.
    int seekStreamIndex = 0;
    // Timestamp at which the track begins in the file.
    int64_t startUs = 0;
    // How far before a seek's target decoding has to begin.
    int64_t prerollUs = 0;
    size_t maxSampleBytes = 0;
    // Where the container states it: the end of the track in the file's own timestamps, and the
    // decoding timestamp of its last sample, in the stream's time base, where an index has it.
    // libavformat's duration of the last sample is not used. It is wrong behind an edit list and
    // for reordered frames, and in Matroska it is the default of the track.
    struct Ending {
        std::optional<int64_t> lastDts;
        int64_t endUs;
    };
    std::optional<Ending> ending;
    // The number of frames that can precede a frame in decoding order and follow it in presentation
    // order.
    size_t reorderDepth = 0;
    // For video of a constant rate.
    std::optional<ConstantFrameRate> constantRate;
    // One for all tracks of the file. Null for containers without discontinuities.
    std::shared_ptr<TimestampDiscontinuities> discontinuities;
    // Null for a track in a container.
    std::shared_ptr<const RawVideoIndex> rawIndex;
    // Of a container with frame numbers only.
    std::vector<AviGap> gaps;
};

struct InputInfo {
    sp<AMessage> format;
    RecordingMetadata metadata;
    std::vector<TrackInfo> tracks;
    // Timestamp 0 is set by an edit list; earlier frames are not shown.
    bool zeroIsFixed = false;

    // True if nobody else refers to the formats and the sources, which have the state of a reader.
    bool isUnshared() const;
};

// Passes what was found in a file from an extractor that read no sample to the next extractor of
// the same file, because probing decodes frames. Any thread.
class InputHandover {
public:
    // The window of a file, in a certain state.
    class File {
    public:
        File() = default;
        File(const struct stat& status, int64_t offset, int64_t length);
        bool operator==(const File& other) const;

    private:
        struct stat mStatus {};
        int64_t mOffset = 0;
        int64_t mLength = 0;
    };

    // Replaces what was put before.
    void put(const File& file, InputInfo info);
    // Nothing unless the latest put() was for this file in this state, and not taken yet.
    std::optional<InputInfo> take(const File& file);

private:
    Mutex mLock;
    File mFile GUARDED_BY(mLock);
    std::optional<InputInfo> mInfo GUARDED_BY(mLock);
};

// ERROR_UNSUPPORTED when this is not a container of audio or video, ERROR_IO when the file cannot
// be read, NO_MEMORY when memory is short.
// The choice of tracks and the metadata policy of `options` count.
status_t probeInput(const std::shared_ptr<const DescriptorFile>& file, const HostOptions& options,
                    InputInfo* info);

}  // namespace qmmediaeditor
}  // namespace android
