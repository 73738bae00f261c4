// The values that options take, as text and as numbers. Each parser is false, and leaves its output
// as it was, for a text that it does not take as a whole.
#pragma once

#include <TranscodeTypes.h>
#include <stdint.h>

#include <string>

namespace android::qmmediaeditor::cli {

struct Size {
    int32_t width;
    int32_t height;
};

// A whole number from `least` to `most`.
bool parseNumber(const std::string& text, int32_t least, int32_t most, int32_t* value);

// Bits a second: a number, also with a fraction, with k (1000) or M (1000000) behind it or without.
bool parseBitrate(const std::string& text, int32_t* bitrate);

// "640x360".
bool parseSize(const std::string& text, Size* size);

// Seconds ("90.25"), m:ss or h:mm:ss, each with up to six decimals.
bool parseTime(const std::string& text, int64_t* timeUs);

// "START-END". The order of the two is not looked at.
bool parsePeriod(const std::string& text, TrimPeriod* period);

// "90.25 s": two decimals.
std::string secondsText(int64_t timeUs);

// "START-END", as parsePeriod takes it.
std::string periodText(const TrimPeriod& period);

}  // namespace android::qmmediaeditor::cli
