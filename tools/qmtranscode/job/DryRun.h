// A short run into memory: whether a request works, what comes out of it, and how fast.
#pragma once

#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/job/InputFile.h>
#include <qmtranscode/job/OutputVerifier.h>
#include <qmtranscode/monitor/RunMonitor.h>

#include <optional>
#include <vector>

namespace android::qmmediaeditor::cli {

struct TrialResult {
    RunCounts counts;
    // Nothing when the time was too short for the first samples.
    std::optional<WrittenFile> written;
    double wallSeconds = 0;
};

// Runs for two seconds: less when the work is done earlier, and up to ten when a track takes so
// long to come as far as the writer. A failure when the request cannot be carried out.
std::optional<Failure> tryRequest(const InputFile& input, const std::vector<TrimPeriod>& periods,
                                  const sp<AMessage>& outputFormat, RunMonitor* monitor,
                                  TrialResult* result);

}  // namespace android::qmmediaeditor::cli
