// The report of a run: what is in its output, and what it took.
#pragma once

#include <TranscodeTypes.h>
#include <qmtranscode/job/OutputVerifier.h>
#include <qmtranscode/monitor/RunStatistics.h>
#include <stdint.h>
#include <sys/resource.h>

#include <optional>
#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

// The resources that a process has used. The process that writes the receipt cannot know them, so
// that the receipt has marks in their places, which the parent process replaces.
struct Usage {
    double cpuSeconds = 0;  // of all threads
    int64_t peakBytes = 0;  // resident memory
};
Usage usageOf(const rusage& usage);
// Control characters, which a receipt does not contain otherwise.
constexpr const char* kUsageMarks = "\x01\x02\x03\x04";
// The text that replaces a mark.
std::string usageText(const Usage& usage, char mark);

struct Receipt {
    std::string input;
    std::string output;
    // False after a stop, which leaves a shorter file.
    bool isComplete = false;
    // The periods that the user asked for; empty for the whole input.
    std::vector<TrimPeriod> asked;
    // The length of the input, 0 if unknown.
    int64_t inputUs = 0;
    RunStatistics statistics;
    TrackCodecs video;
    TrackCodecs audio;
    // Of the output; nothing when nothing was written.
    std::optional<OutputContents> contents;
    double wallSeconds = 0;
};

// A JSON object, in several lines.
std::string toJson(const Receipt& receipt);

// The same for people, in aligned lines.
std::string toText(const Receipt& receipt);

// The receipt of a run without output: a JSON object.
std::string emptyReceipt(const std::string& input, const std::string& output);

}  // namespace android::qmmediaeditor::cli
