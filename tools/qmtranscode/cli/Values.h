// Parsers of option values. Each returns nothing if a part of the text is invalid.
#pragma once

#include <TranscodeTypes.h>
#include <qmtranscode/cli/OutputCodecs.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace android::qmmediaeditor::cli {

// Decimal digits, without a sign.
std::optional<int64_t> parseInteger(std::string_view text, int64_t min, int64_t max);

// Bits per second, from 1000: "64000", "128k" or "1.5M".
std::optional<int32_t> parseBitrate(std::string_view text);

// Bytes, from 1000: "25000000", "25M" or "1.5G".
std::optional<int64_t> parseBytes(std::string_view text);

// "640x360".
std::optional<Size> parseSize(std::string_view text);

// A number with a sign, decimals and the unit all optional: "-3dB", "-3 dB", "+1.5".
std::optional<double> parseLevel(std::string_view text, const std::string& unit);

// Seconds ("90.25"), m:ss or h:mm:ss, each with up to six decimals. The result is in microseconds.
std::optional<int64_t> parseTimeUs(std::string_view text);

// Stands for the end of the input; later than any time that can be parsed.
constexpr int64_t kEndOfInputUs = INT64_C(40000000000000);

// "START-END", or "START-" up to the end of the input. Whether the end is after the start is not
// checked.
std::optional<TrimPeriod> parsePeriod(std::string_view text);

// Why the period with this index does not follow those before it; empty if it does.
std::string checkOrder(const std::vector<TrimPeriod>& periods, size_t index);

// "START-END", as parsePeriod takes it.
std::string periodText(const TrimPeriod& period);

}  // namespace android::qmmediaeditor::cli
