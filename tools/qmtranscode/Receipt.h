// What a run did, as it stands in the file that it left.
#pragma once

#include <TranscodeTypes.h>
#include <qmtranscode/ReadBack.h>
#include <qmtranscode/RunCounts.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

// What the process has used so far.
struct Usage {
    double cpuSeconds = 0;  // of all threads
    int64_t peakBytes = 0;  // resident memory
};
Usage currentUsage();

struct Receipt {
    std::string input;
    std::string output;
    // A stopped run leaves a file that is valid up to its end.
    bool complete = false;
    // As the user has asked; empty for the whole input.
    std::vector<TrimPeriod> asked;
    // The length of the input, 0 if unknown.
    int64_t inputUs = 0;
    RunCounts counts;
    // Nothing when nothing was written.
    std::optional<WrittenFile> written;
    double wallSeconds = 0;
    Usage usage;
};

// One JSON object, over several lines.
std::string toJson(const Receipt& receipt);

// The same for a person, in aligned lines.
std::string toText(const Receipt& receipt);

// The receipt of a process that ends at once: a JSON object.
std::string emptyReceipt(const std::string& input, const std::string& output);

}  // namespace android::qmmediaeditor::cli
