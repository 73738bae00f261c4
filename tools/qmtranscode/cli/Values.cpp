#include <ctype.h>
#include <inttypes.h>
#include <qmtranscode/cli/Values.h>
#include <stdio.h>
#include <stdlib.h>

#include <cmath>
#include <limits>
#include <vector>

namespace android::qmmediaeditor::cli {

namespace {

constexpr int64_t kSecondUs = 1000000;
// Longer than any recording, and far from where sums of periods would overflow.
constexpr int64_t kLastHour = 9999;

bool isDigits(const std::string& text) {
    if (text.empty()) return false;
    for (char c : text) {
        if (isdigit(static_cast<unsigned char>(c)) == 0) return false;
    }
    return true;
}

bool parseDigits(const std::string& text, int64_t most, int64_t* value) {
    // Short enough for any product below to stay within 64 bits.
    if (!isDigits(text) || text.size() > 12) return false;
    const int64_t number = strtoll(text.c_str(), nullptr, 10);
    if (number > most) return false;
    *value = number;
    return true;
}

// "12" or "12.5" in microseconds.
bool parseSeconds(const std::string& text, int64_t most, int64_t* timeUs) {
    const size_t point = text.find('.');
    int64_t seconds = 0;
    if (!parseDigits(text.substr(0, point), most, &seconds)) return false;
    int64_t fractionUs = 0;
    if (point != std::string::npos) {
        std::string decimals = text.substr(point + 1);
        if (decimals.size() > 6 || !isDigits(decimals)) return false;
        decimals.resize(6, '0');
        fractionUs = strtoll(decimals.c_str(), nullptr, 10);
    }
    *timeUs = seconds * kSecondUs + fractionUs;
    return true;
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    size_t begin = 0;
    for (size_t end; (end = text.find(separator, begin)) != std::string::npos; begin = end + 1) {
        parts.push_back(text.substr(begin, end - begin));
    }
    parts.push_back(text.substr(begin));
    return parts;
}

}  // namespace

bool parseNumber(const std::string& text, int32_t least, int32_t most, int32_t* value) {
    int64_t number = 0;
    if (!parseDigits(text, most, &number) || number < least) return false;
    *value = static_cast<int32_t>(number);
    return true;
}

bool parseBitrate(const std::string& text, int32_t* bitrate) {
    if (text.empty() || isdigit(static_cast<unsigned char>(text[0])) == 0) return false;
    std::string number = text;
    double unit = 1;
    const char last = number.back();
    if (last == 'k' || last == 'K') unit = 1000;
    if (last == 'M') unit = 1000000;
    if (unit > 1) number.pop_back();
    if (number.find_first_not_of("0123456789.") != std::string::npos) return false;
    char* end = nullptr;
    const double value = std::round(strtod(number.c_str(), &end) * unit);
    if (*end != '\0' || value < 1 || value > std::numeric_limits<int32_t>::max()) return false;
    *bitrate = static_cast<int32_t>(value);
    return true;
}

bool parseSize(const std::string& text, Size* size) {
    const std::vector<std::string> parts = split(text, 'x');
    constexpr int32_t kMost = 1000000;
    Size parsed{};
    if (parts.size() != 2 || !parseNumber(parts[0], 0, kMost, &parsed.width) ||
        !parseNumber(parts[1], 0, kMost, &parsed.height)) {
        return false;
    }
    *size = parsed;
    return true;
}

bool parseTime(const std::string& text, int64_t* timeUs) {
    const std::vector<std::string> parts = split(text, ':');
    if (parts.size() > 3) return false;
    // Only the leading part may count beyond 59.
    int64_t hours = 0;
    int64_t minutes = 0;
    int64_t secondsUs = 0;
    if (parts.size() == 3 && !parseDigits(parts[0], kLastHour, &hours)) return false;
    const int64_t mostMinutes = parts.size() == 3 ? 59 : kLastHour * 60;
    if (parts.size() >= 2 && !parseDigits(parts[parts.size() - 2], mostMinutes, &minutes)) {
        return false;
    }
    const int64_t mostSeconds = parts.size() >= 2 ? 59 : kLastHour * 3600;
    if (!parseSeconds(parts.back(), mostSeconds, &secondsUs)) return false;
    *timeUs = (hours * 3600 + minutes * 60) * kSecondUs + secondsUs;
    return true;
}

bool parsePeriod(const std::string& text, TrimPeriod* period) {
    const std::vector<std::string> parts = split(text, '-');
    TrimPeriod parsed{};
    if (parts.size() != 2 || !parseTime(parts[0], &parsed.mStartUs) ||
        !parseTime(parts[1], &parsed.mEndUs)) {
        return false;
    }
    *period = parsed;
    return true;
}

std::string secondsText(int64_t timeUs) {
    char text[32];
    snprintf(text, sizeof(text), "%.2f s", static_cast<double>(timeUs) / kSecondUs);
    return text;
}

std::string periodText(const TrimPeriod& period) {
    char text[64];
    snprintf(text, sizeof(text), "%g-%g", static_cast<double>(period.mStartUs) / kSecondUs,
             static_cast<double>(period.mEndUs) / kSecondUs);
    return text;
}

}  // namespace android::qmmediaeditor::cli
