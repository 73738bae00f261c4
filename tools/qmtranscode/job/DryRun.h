// A short run into memory: whether a request works, what its output looks like, and how fast it is.
#pragma once

#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/job/JobFiles.h>
#include <qmtranscode/job/OutputVerifier.h>
#include <qmtranscode/job/Session.h>
#include <qmtranscode/monitor/RunMonitor.h>

#include <optional>
#include <vector>

namespace android::qmmediaeditor::cli {

struct DryRun {
    TrackCodecs video;
    TrackCodecs audio;
    // Nothing when the time was too short for the first samples.
    std::optional<OutputContents> output;
    double wallSeconds = 0;
};

// Runs for two seconds: less when the work is done earlier, and up to ten until each track has
// reached the writer. A failure if the request cannot be carried out.
Result<DryRun> dryRun(const JobInput& input, const std::vector<TrimPeriod>& periods,
                      const sp<AMessage>& outputFormat, RunMonitor* monitor, RunObserver* observer);

}  // namespace android::qmmediaeditor::cli
