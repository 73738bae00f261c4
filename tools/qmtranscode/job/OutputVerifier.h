// Verification after the run: no output is called complete that was not read again.
#pragma once

#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/job/JobFiles.h>
#include <qmtranscode/job/MediaFile.h>
#include <qmtranscode/monitor/RunStatistics.h>

#include <optional>
#include <string>

namespace android::qmmediaeditor::cli {

struct OutputContents {
    MediaFile media;
    // All samples of the tracks that `media` has.
    std::optional<TrackSamples> video;
    std::optional<TrackSamples> audio;

    // The time at which the first track ends, in microseconds.
    int64_t commonEndUs() const;
};

// Nothing if the file cannot be read to its end or has no samples.
std::optional<OutputContents> readOutput(int fd);

// How the metadata of an output differs from what `policy` keeps of the input's. Also finds what
// must not be there, the location above all.
std::optional<std::string> metadataFault(const MediaFile& input, MetadataPolicy policy,
                                         const MediaFile& output);

// Compares the output with what the session took from the input: the timestamp of every frame, the
// length of the last frame, the length of the audio, the uuid data and the metadata.
class OutputVerifier {
public:
    // All outlive the object.
    OutputVerifier(const JobInput& input, const RunStatistics& statistics,
                   const RunObserver& observer, MetadataPolicy policy)
        : mInput(input), mStatistics(statistics), mObserver(observer), mPolicy(policy) {}

    // The fault of the output; nothing if it is complete.
    std::optional<std::string> verify(const OutputContents& output) const;

private:
    std::optional<std::string> verifyVideo(const OutputContents& output) const;
    std::optional<std::string> verifyAudio(const OutputContents& output) const;

    const JobInput& mInput;
    const RunStatistics& mStatistics;
    const RunObserver& mObserver;
    const MetadataPolicy mPolicy;
};

}  // namespace android::qmmediaeditor::cli
