#include <fmt/format.h>
#include <qmtranscode/report/Format.h>

namespace android::qmmediaeditor::cli {

namespace {

constexpr bool kAsciiOnly = true;

std::string scaled(int64_t value, const char* unit) {
    const bool isMega = value >= 1000000;
    return fmt::format("{:.1f} {}{}", static_cast<double>(value) / (isMega ? 1e6 : 1e3),
                       isMega ? 'M' : 'k', unit);
}

}  // namespace

std::string secondsText(int64_t us) { return fmt::format("{:.2f} s", secondsOf(us)); }

std::string bytesText(int64_t bytes) { return scaled(bytes, "B"); }

std::string bitrateText(int64_t bitsPerSecond) { return scaled(bitsPerSecond, "bit/s"); }

std::string dumpJson(const Json& json) {
    return json.dump(2, ' ', kAsciiOnly, Json::error_handler_t::replace) + '\n';
}

std::string dumpJsonLine(const Json& json) {
    return json.dump(-1, ' ', kAsciiOnly, Json::error_handler_t::replace);
}

}  // namespace android::qmmediaeditor::cli
