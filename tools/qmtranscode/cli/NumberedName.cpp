#include <fmt/format.h>
#include <qmtranscode/cli/NumberedName.h>

#include <optional>

namespace android::qmmediaeditor::cli {

namespace {

struct Conversion {
    size_t size = 0;  // of its text; 0 if it is none that is supported
    int width = 0;
    bool hasZeros = false;
};

// The conversion at `begin`, which is a percent sign.
Conversion conversionAt(const std::string& pattern, size_t begin) {
    Conversion conversion;
    size_t at = begin + 1;
    if (at < pattern.size() && pattern[at] == '0') {
        conversion.hasZeros = true;
        ++at;
    }
    if (at < pattern.size() && pattern[at] >= '1' && pattern[at] <= '9') {
        conversion.width = pattern[at++] - '0';
    }
    if (at < pattern.size() && pattern[at] == 'd') conversion.size = at + 1 - begin;
    return conversion;
}

// The number in place of each conversion; nothing for a conversion that is not supported.
std::optional<std::string> format(const std::string& pattern, int number, int* conversions) {
    std::string name;
    for (size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] != '%') {
            name += pattern[i];
        } else if (pattern.compare(i, 2, "%%") == 0) {
            name += pattern[i++];
        } else {
            const Conversion conversion = conversionAt(pattern, i);
            if (conversion.size == 0) return std::nullopt;
            name += conversion.hasZeros ? fmt::format("{:0{}}", number, conversion.width)
                                        : fmt::format("{:{}}", number, conversion.width);
            i += conversion.size - 1;
            ++*conversions;
        }
    }
    return name;
}

}  // namespace

std::string checkNamePattern(const std::string& pattern) {
    int conversions = 0;
    if (format(pattern, 1, &conversions) && conversions == 1) return "";
    return "expected a file name with one %d, such as 'part-%02d' and its extension";
}

std::string numberedName(const std::string& pattern, int number) {
    int conversions = 0;
    return format(pattern, number, &conversions).value_or(pattern);
}

}  // namespace android::qmmediaeditor::cli
