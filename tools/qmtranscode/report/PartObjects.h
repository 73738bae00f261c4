// The parent process's part of --split: how many outputs there are, and the JSON object of them
// all.
#pragma once

#include <qmtranscode/cli/Options.h>
#include <stddef.h>

#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

constexpr size_t kMaxParts = 100000;

// The number of outputs, as far as the options tell it: 0 for chapters, and one more than there are
// if nothing follows the last cut.
size_t knownParts(const Options& options);

// The object of the whole command from those of its runs, of which there is at least one. How the
// command ended is how the last one did.
std::string combineObjects(const Options& options, const std::vector<std::string>& objects);

}  // namespace android::qmmediaeditor::cli
