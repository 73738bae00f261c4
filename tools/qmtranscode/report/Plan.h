// The plan of a job: each value of the output and where it comes from.
#pragma once

#include <qmtranscode/cli/Options.h>
#include <qmtranscode/job/JobFiles.h>
#include <qmtranscode/job/Request.h>
#include <qmtranscode/job/Session.h>

#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

// The codecs and settings that are known without a dry run; `format` is that of describeOutput().
DryRun plannedRun(const sp<AMessage>& format);

// A JSON object. `run` used these options and periods.
std::string planJson(const Options& options, const JobInput& input, const KeptPeriods& kept,
                     const DryRun& run);

}  // namespace android::qmmediaeditor::cli
