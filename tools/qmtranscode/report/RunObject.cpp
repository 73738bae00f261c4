#include <fmt/format.h>
#include <qmtranscode/report/Format.h>
#include <qmtranscode/report/RunObject.h>
#include <stdio.h>

#include <algorithm>

namespace android::qmmediaeditor::cli {

namespace {

// A string of RFC 8259. The text is printable by then.
void addQuoted(std::string_view text, std::string* object) {
    *object += '"';
    for (const char c : text) {
        if (c == '"' || c == '\\') *object += '\\';
        *object += static_cast<unsigned char>(c) < 0x20 ? '?' : c;
    }
    *object += '"';
}

void addWarnings(std::string_view warnings, std::string* object) {
    *object += '[';
    while (!warnings.empty()) {
        const size_t end = std::min(warnings.find('\n'), warnings.size());
        addQuoted(warnings.substr(0, end), object);
        warnings.remove_prefix(std::min(end + 1, warnings.size()));
        if (!warnings.empty()) *object += ", ";
    }
    *object += ']';
}

void addError(const RunEnd& end, std::string* object) {
    *object += "{\n    \"code\": ";
    addQuoted(end.code, object);
    *object += ",\n    \"stage\": ";
    addQuoted(end.stage, object);
    *object += ",\n    \"subject\": ";
    addQuoted(end.subject, object);
    *object += ",\n    \"text\": ";
    addQuoted(end.reason, object);
    *object +=
        isRetryable(end) ? ",\n    \"retryable\": true\n  }" : ",\n    \"retryable\": false\n  }";
}

}  // namespace

Usage usageOf(const rusage& usage) {
    const auto cpuSeconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return {cpuSeconds(usage.ru_utime) + cpuSeconds(usage.ru_stime),
            static_cast<int64_t>(usage.ru_maxrss) * 1024};
}

std::string usageText(const Usage& usage, char mark) {
    switch (mark) {
        case kCpuTextMark:
            return fmt::format("{:.2f}", usage.cpuSeconds);
        case kMemoryTextMark:
            return bytesText(usage.peakBytes);
        case kCpuJsonMark:
            return fmt::format("{:.6f}", usage.cpuSeconds);
        case kMemoryJsonMark:
            return std::to_string(usage.peakBytes);
        default:
            return "";
    }
}

bool isRetryable(const RunEnd& end) {
    // The same input and options give the same frames.
    if (end.code == kBelowMinSsimCode) return false;
    return end.exitStatus == kExitFailed || end.exitStatus == kExitStopped;
}

std::string namesOf(const Options& options) {
    const std::string object = dumpJson({{"input", options.input}, {"output", options.output}});
    return std::string(membersOf(object));
}

std::string_view membersOf(std::string_view text) {
    constexpr std::string_view kBegin = "{\n";
    constexpr std::string_view kEnd = "\n}\n";
    const bool isObject = text.size() > kBegin.size() + kEnd.size() &&
                          text.substr(0, kBegin.size()) == kBegin &&
                          text.substr(text.size() - kEnd.size()) == kEnd;
    if (!isObject) return {};
    return text.substr(kBegin.size(), text.size() - kBegin.size() - kEnd.size());
}

void makeObject(const RunEnd& end, std::string_view warnings, std::string_view request,
                std::string_view members, std::string* object) {
    char number[16];
    const int digits = snprintf(number, sizeof(number), "%d", end.exitStatus);
    *object = "{\n  \"status\": ";
    addQuoted(end.status, object);
    *object += ",\n  \"exit\": ";
    object->append(number, static_cast<size_t>(digits));
    *object += ",\n  \"error\": ";
    if (end.code.empty()) {
        *object += "null";
    } else {
        addError(end, object);
    }
    *object += ",\n  \"warnings\": ";
    addWarnings(warnings, object);
    *object += ",\n  \"version\": \"" QMTRANSCODE_VERSION "\",\n  \"request\": ";
    *object += request;
    if (!members.empty()) *object += ",\n";
    *object += members;
    *object += "\n}\n";
}

}  // namespace android::qmmediaeditor::cli
