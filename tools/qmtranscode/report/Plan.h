// What would be done, and why: said before any of it is.
#pragma once

#include <qmtranscode/cli/Options.h>
#include <qmtranscode/job/DryRun.h>
#include <qmtranscode/job/InputFile.h>

#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

// A JSON object. `trial` ran with these options and periods.
std::string planJson(const Options& options, const InputFile& input,
                     const std::vector<TrimPeriod>& periods, const TrialResult& trial);

}  // namespace android::qmmediaeditor::cli
