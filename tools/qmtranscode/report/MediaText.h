// Codecs and data of media files, as receipt and plan describe them.
#pragma once

#include <string>

namespace android::qmmediaeditor::cli {

// "avc" for the MIME type of an output codec; for others, the MIME type.
std::string codecName(const std::string& mime);

// SHA-256 (FIPS 180-4) in hexadecimal digits, as sha256sum prints it.
std::string sha256(const std::string& bytes);

}  // namespace android::qmmediaeditor::cli
