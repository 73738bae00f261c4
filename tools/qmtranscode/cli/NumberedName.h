// Names of numbered files, such as those of --split: "part-%02d.mp4".
#pragma once

#include <string>

namespace android::qmmediaeditor::cli {

// Why the pattern names no files; empty if it does. A pattern has one %d, which may have a width,
// and %% stands for a percent sign.
std::string checkNamePattern(const std::string& pattern);

// For a pattern that checkNamePattern() accepts.
std::string numberedName(const std::string& pattern, int number);

}  // namespace android::qmmediaeditor::cli
