// The report of a run: what is in its output, and what it took.
#pragma once

#include <TranscodeTypes.h>
#include <qmtranscode/job/EncodingVerifier.h>
#include <qmtranscode/job/OutputVerifier.h>
#include <qmtranscode/monitor/RunStatistics.h>
#include <qmtranscode/report/MetadataReport.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

struct Receipt {
    std::string input;
    std::string output;
    // False after a stop, which leaves a shorter file.
    bool isComplete = false;
    // The periods that the user asked for; empty for the whole input.
    std::vector<TrimPeriod> asked;
    std::vector<std::string> names;  // of these, or none
    // The tracks of the input that were used.
    std::optional<VideoTrack> inputVideo;
    std::optional<AudioTrack> inputAudio;
    // The length of the input, 0 if it is not known exactly.
    int64_t inputUs = 0;
    std::optional<int32_t> quality;  // of the AVC encoder
    // In LUFS, where --loudness has changed it: before the gains, and after them.
    std::optional<double> inputLoudness;
    std::optional<double> loudness;
    std::vector<std::string> because;  // why it was encoded, where that depends on a file
    std::optional<int> runs;           // where it was repeated to meet a size
    RunStatistics statistics;
    TrackCodecs video;
    TrackCodecs audio;
    int threads = 0;       // of each video codec
    int32_t sections = 0;  // that were encoded apart and joined
    // Of the output; nothing when nothing was written.
    std::optional<OutputContents> contents;
    MetadataReport metadata;
    // Of --verify.
    std::optional<Verification> verification;
    double wallSeconds = 0;
};

// An object of several lines; its members follow the head of the run's JSON object.
std::string toJson(const Receipt& receipt);

// The same for people, in aligned lines.
std::string toText(const Receipt& receipt);

}  // namespace android::qmmediaeditor::cli
