// Values as text for people, and JSON (RFC 8259) for programs.
#pragma once

#include <stdint.h>

#include <nlohmann/json.hpp>
#include <string>

namespace android::qmmediaeditor::cli {

constexpr double secondsOf(int64_t us) { return static_cast<double>(us) / 1e6; }

// "90.25 s".
std::string secondsText(int64_t us);

// "5.1 MB", "812.0 kB".
std::string bytesText(int64_t bytes);

// "4.0 Mbit/s", "128.0 kbit/s".
std::string bitrateText(int64_t bitsPerSecond);

// Members stay in the order in which they are set.
using Json = nlohmann::ordered_json;

// Several lines, ASCII only, because a file name may contain characters that control a terminal.
// Bytes that are not UTF-8 are replaced.
std::string dumpJson(const Json& json);

// The same in one line, without a line break.
std::string dumpJsonLine(const Json& json);

}  // namespace android::qmmediaeditor::cli
