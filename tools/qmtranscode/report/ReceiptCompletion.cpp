#include <fmt/format.h>
#include <qmtranscode/report/Format.h>
#include <qmtranscode/report/ReceiptCompletion.h>

namespace android::qmmediaeditor::cli {

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

std::string emptyReceipt(const std::string& input, const std::string& output) {
    return dumpJson({{"status", "nothing written"}, {"input", input}, {"output", output}});
}

}  // namespace android::qmmediaeditor::cli
