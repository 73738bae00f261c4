#include <ctype.h>
#include <fmt/format.h>
#include <qmtranscode/cli/Values.h>
#include <strings.h>

#include <charconv>
#include <cmath>
#include <limits>
#include <vector>

namespace android::qmmediaeditor::cli {

namespace {

constexpr int64_t kSecondUs = 1000000;
// Longer than any recording, and far from where sums of periods would overflow.
constexpr int64_t kMaxHours = 9999;

bool startsWithDigit(std::string_view text) {
    return !text.empty() && isdigit(static_cast<unsigned char>(text[0])) != 0;
}

// "12" or "12.5", in microseconds. The fraction is not rounded, which a double would be.
std::optional<int64_t> parseSecondsUs(std::string_view text, int64_t maxSeconds) {
    const size_t point = text.find('.');
    const std::optional<int64_t> seconds = parseInteger(text.substr(0, point), 0, maxSeconds);
    if (!seconds || point == std::string_view::npos) {
        return seconds ? std::optional(*seconds * kSecondUs) : std::nullopt;
    }
    constexpr size_t kDecimals = 6;
    std::string decimals(text.substr(point + 1));
    if (decimals.empty() || decimals.size() > kDecimals) return std::nullopt;
    decimals.resize(kDecimals, '0');
    const std::optional<int64_t> fractionUs = parseInteger(decimals, 0, kSecondUs);
    return fractionUs ? std::optional(*seconds * kSecondUs + *fractionUs) : std::nullopt;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    for (size_t end; (end = text.find(separator)) != std::string_view::npos;) {
        parts.push_back(text.substr(0, end));
        text.remove_prefix(end + 1);
    }
    parts.push_back(text);
    return parts;
}

}  // namespace

std::optional<int64_t> parseInteger(std::string_view text, int64_t min, int64_t max) {
    int64_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    const bool isWhole = startsWithDigit(text) && error == std::errc() && rest == end;
    return isWhole && value >= min && value <= max ? std::optional(value) : std::nullopt;
}

namespace {

// A number with a decimal unit, from 1000: less is more likely a forgotten unit.
std::optional<int64_t> parseScaled(std::string_view text, int64_t max) {
    if (!startsWithDigit(text)) return std::nullopt;
    double unit = 1;
    if (text.back() == 'k' || text.back() == 'K') unit = 1e3;
    if (text.back() == 'M') unit = 1e6;
    if (text.back() == 'G') unit = 1e9;
    if (unit > 1) text.remove_suffix(1);
    double number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number, std::chars_format::fixed);
    if (error != std::errc() || rest != end) return std::nullopt;
    const double value = std::round(number * unit);
    constexpr double kMin = 1000;
    if (value < kMin || value > static_cast<double>(max)) return std::nullopt;
    return static_cast<int64_t>(value);
}

}  // namespace

std::optional<int32_t> parseBitrate(std::string_view text) {
    const std::optional<int64_t> value = parseScaled(text, std::numeric_limits<int32_t>::max());
    return value ? std::optional(static_cast<int32_t>(*value)) : std::nullopt;
}

std::optional<int64_t> parseBytes(std::string_view text) {
    constexpr int64_t kMaxBytes = 9000000000000;
    return parseScaled(text, kMaxBytes);
}

std::optional<Size> parseSize(std::string_view text) {
    constexpr int32_t kMax = 1000000;
    const std::vector<std::string_view> parts = split(text, 'x');
    if (parts.size() != 2) return std::nullopt;
    const std::optional<int64_t> width = parseInteger(parts[0], 0, kMax);
    const std::optional<int64_t> height = parseInteger(parts[1], 0, kMax);
    if (!width || !height) return std::nullopt;
    return Size{static_cast<int32_t>(*width), static_cast<int32_t>(*height)};
}

std::optional<double> parseLevel(std::string_view text, const std::string& unit) {
    const bool isPositive = !text.empty() && text[0] == '+';
    if (isPositive) text.remove_prefix(1);
    if (!startsWithDigit(text) && (isPositive || text.empty() || text[0] != '-')) {
        return std::nullopt;
    }
    double value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value, std::chars_format::fixed);
    std::string after(rest, end);
    if (!after.empty() && after[0] == ' ') after.erase(0, 1);
    const bool isUnit = rest == end || strcasecmp(after.c_str(), unit.c_str()) == 0;
    return error == std::errc() && isUnit && std::isfinite(value) ? std::optional(value)
                                                                  : std::nullopt;
}

std::optional<int64_t> parseTimeUs(std::string_view text) {
    const std::vector<std::string_view> parts = split(text, ':');
    if (parts.size() > 3) return std::nullopt;
    // Only the leading part may exceed 59.
    std::optional<int64_t> hours = 0;
    std::optional<int64_t> minutes = 0;
    if (parts.size() == 3) hours = parseInteger(parts[0], 0, kMaxHours);
    if (parts.size() >= 2) {
        minutes = parseInteger(parts[parts.size() - 2], 0, parts.size() == 3 ? 59 : kMaxHours * 60);
    }
    const std::optional<int64_t> secondsUs =
        parseSecondsUs(parts.back(), parts.size() >= 2 ? 59 : kMaxHours * 3600);
    if (!hours || !minutes || !secondsUs) return std::nullopt;
    return (*hours * 3600 + *minutes * 60) * kSecondUs + *secondsUs;
}

std::optional<TrimPeriod> parsePeriod(std::string_view text) {
    const std::vector<std::string_view> parts = split(text, '-');
    if (parts.size() != 2) return std::nullopt;
    const std::optional<int64_t> startUs = parseTimeUs(parts[0]);
    const std::optional<int64_t> endUs = parts[1].empty() ? kEndOfInputUs : parseTimeUs(parts[1]);
    if (!startUs || !endUs) return std::nullopt;
    TrimPeriod period{};
    period.mStartUs = *startUs;
    period.mEndUs = *endUs;
    return period;
}

std::string checkOrder(const std::vector<TrimPeriod>& periods, size_t index) {
    if (periods[index].mEndUs <= periods[index].mStartUs) return "the end must be after the start";
    if (index == 0 || periods[index].mStartUs >= periods[index - 1].mEndUs) return "";
    return "periods must be in time order and must not overlap";
}

std::string periodText(const TrimPeriod& period) {
    if (period.mEndUs >= kEndOfInputUs) {
        return fmt::format("{:g}-", static_cast<double>(period.mStartUs) / kSecondUs);
    }
    return fmt::format("{:g}-{:g}", static_cast<double>(period.mStartUs) / kSecondUs,
                       static_cast<double>(period.mEndUs) / kSecondUs);
}

}  // namespace android::qmmediaeditor::cli
