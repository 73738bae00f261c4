// What a run did, as it stands in the file that it left.
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

// The resources that a process has used. They are known when the process has ended, which is after
// it wrote its receipt: there, marks stand in their place.
struct Usage {
    double cpuSeconds = 0;  // of all threads
    int64_t peakBytes = 0;  // resident memory
};
Usage usageOf(const rusage& usage);
// Control characters, which a receipt does not have otherwise.
constexpr const char* kUsageMarks = "\x01\x02\x03\x04";
// What stands in the place of a mark.
std::string usageText(const Usage& usage, char mark);

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
};

// One JSON object, over several lines.
std::string toJson(const Receipt& receipt);

// The same for a person, in aligned lines.
std::string toText(const Receipt& receipt);

// The receipt of a process that ends at once: a JSON object.
std::string emptyReceipt(const std::string& input, const std::string& output);

}  // namespace android::qmmediaeditor::cli
