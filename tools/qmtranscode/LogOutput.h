// The platform log, on standard error. There is one for the whole process.
#pragma once

#include <optional>
#include <string>

namespace android::qmmediaeditor::cli {

// `filter` and `format` are in logcat's words, checked before. Without a filter nothing is logged,
// or even put into words. Either way, a failed check of the platform's invariants ends the process
// with status 1, one line and no output file.
void installLog(const std::optional<std::string>& filter, const std::string& format);

}  // namespace android::qmmediaeditor::cli
