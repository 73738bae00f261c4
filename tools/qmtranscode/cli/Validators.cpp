#include <host/codec/InputLimits.h>
#include <log/logprint.h>
#include <qmtranscode/cli/NumberedName.h>
#include <qmtranscode/cli/PeriodList.h>
#include <qmtranscode/cli/Validators.h>
#include <qmtranscode/cli/Values.h>

#include <algorithm>
#include <utility>

namespace android::qmmediaeditor::cli {

namespace {

constexpr const char* kEmptyValue = "the value must not be empty";

}  // namespace

std::string listText(const std::vector<std::string>& words) {
    const std::string head =
        fmt::format("{}", fmt::join(words.begin(), std::prev(words.end()), ", "));
    return head + " or " + words.back();
}

std::string refusal(const std::string& value, const std::string& reason) {
    if (value.empty()) return kEmptyValue;
    return fmt::format(" {}: {}", value, reason);
}

CLI::Validator check(std::function<std::string(std::string&)> validate) {
    return CLI::Validator(std::move(validate), "");
}

CLI::Validator oneOf(const std::vector<std::string>& words) {
    return check([words](const std::string& text) {
        const bool isKnown = std::find(words.begin(), words.end(), text) != words.end();
        return isKnown ? "" : refusal(text, "expected " + listText(words));
    });
}

CLI::Validator integer(int32_t min, int32_t max) {
    return check([min, max](std::string& text) {
        const std::optional<int64_t> value = parseInteger(text, min, max);
        if (!value) {
            return refusal(text, fmt::format("expected an integer from {} to {}", min, max));
        }
        // Without leading zeros, which would make the number octal.
        text = std::to_string(*value);
        return std::string();
    });
}

CLI::Validator bitrate() {
    return check([](std::string& text) {
        const std::optional<int32_t> value = parseBitrate(text);
        if (!value) {
            return refusal(text, "expected bits per second from 1k to 2147M, such as 128k or 4M");
        }
        text = std::to_string(*value);
        return std::string();
    });
}

CLI::Validator bytes() {
    return check([](std::string& text) {
        const std::optional<int64_t> value = parseBytes(text);
        if (!value) return refusal(text, "expected bytes from 1k to 9000G, such as 500k or 25M");
        text = std::to_string(*value);
        return std::string();
    });
}

CLI::Validator boxSize() {
    return check([](const std::string& text) -> std::string {
        const std::optional<Size> size = parseSize(text);
        if (!size) return refusal(text, "expected WIDTHxHEIGHT, such as 1280x720");
        const auto [width, height] = *size;
        if (std::min(width, height) < kMinSide || std::max(width, height) > kMaxSide) {
            return refusal(
                text, fmt::format("width and height must be from {} to {}", kMinSide, kMaxSide));
        }
        return "";
    });
}

CLI::Validator frameSize() {
    return check([](const std::string& text) -> std::string {
        const auto [width, height] = *parseSize(text);
        // The output is read again for verification, where this limit applies.
        if (int64_t{width} * height > kMaxPixels) {
            return refusal(text, fmt::format("a frame can have at most {} pixels", kMaxPixels));
        }
        if (width % 2 != 0 || height % 2 != 0) {
            return refusal(text, fmt::format("width and height must be even; {}x{} would work",
                                             width & ~1, height & ~1));
        }
        return "";
    });
}

CLI::Validator level(const char* unit, double min, double max) {
    return check([unit, min, max](std::string& text) {
        const std::optional<double> value = parseLevel(text, unit);
        if (!value || *value < min || *value > max) {
            return refusal(text, fmt::format("expected {} to {}{}{}", min, max,
                                             *unit == '\0' ? "" : " ", unit));
        }
        text = fmt::format("{}", *value);
        return std::string();
    });
}

CLI::Validator period() {
    return check([](const std::string& text) -> std::string {
        const std::optional<TrimPeriod> parsed = parsePeriod(text);
        if (!parsed) return refusal(text, "expected START-END, such as 0-2.5 or 1:30-1:45");
        const std::string reason = checkOrder({*parsed}, 0);
        return reason.empty() ? reason : refusal(text, reason);
    });
}

CLI::Validator section() {
    return check([](const std::string& text) -> std::string {
        if (parseSection(text)) return "";
        return refusal(text, fmt::format("expected K/N, such as 2/4; N is at most {}, and K from "
                                         "0 (the audio) to N",
                                         kMaxSections));
    });
}

CLI::Validator namePattern() {
    return check([](const std::string& text) -> std::string {
        const std::string reason = checkNamePattern(text);
        return reason.empty() ? reason : refusal(text, reason);
    });
}

CLI::Validator logFilter() {
    return check([](const std::string& text) -> std::string {
        AndroidLogFormat* const format = android_log_format_new();
        const bool isValid = android_log_addFilterString(format, text.c_str()) == 0;
        android_log_format_free(format);
        if (isValid) return "";
        return refusal(text, "expected TAG:PRIORITY pairs, such as 'Transcode:V *:S'");
    });
}

CLI::Validator notEmpty() {
    return check(
        [](const std::string& text) -> std::string { return text.empty() ? kEmptyValue : ""; });
}

}  // namespace android::qmmediaeditor::cli
