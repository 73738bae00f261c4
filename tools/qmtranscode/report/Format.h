// How media are spoken of: names and numbers with their units.
#pragma once

#include <stdint.h>

#include <string>

namespace android::qmmediaeditor::cli {

// "avc" for a MIME type that the command line has a word for; else the type itself.
std::string codecName(const std::string& mime);

// "5.1 MB", "812.0 kB".
std::string bytesText(int64_t bytes);

// "4.0 Mbit/s", "128 kbit/s".
std::string bitrateText(int64_t bitsPerSecond);

// SHA-256 (FIPS 180-4) in hexadecimal digits, as sha256sum prints it.
std::string sha256(const std::string& bytes);

}  // namespace android::qmmediaeditor::cli
