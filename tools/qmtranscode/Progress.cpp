#include <qmtranscode/Console.h>
#include <qmtranscode/Progress.h>
#include <stdio.h>

#include <algorithm>

namespace android::qmmediaeditor::cli {

namespace {

constexpr int32_t kWhole = 100;

std::string barText(const std::string& name, int32_t percent) {
    constexpr int kLongestName = 30;
    constexpr int kLongestBar = 40;
    constexpr int kPercentColumns = 10;
    const std::string label = static_cast<int>(name.size()) > kLongestName ? "" : name + ' ';
    // One column stays free, so that the terminal does not break the line.
    const int room = console::width() - static_cast<int>(label.size()) - kPercentColumns;
    const int columns = std::clamp(room, 0, kLongestBar);
    const int filled = columns * percent / kWhole;
    char percentText[16];
    snprintf(percentText, sizeof(percentText), "%3d %%", percent);
    return label + '[' + std::string(static_cast<size_t>(filled), '#') +
           std::string(static_cast<size_t>(columns - filled), '.') + "] " + percentText;
}

}  // namespace

Progress::Progress(ProgressStyle style, const std::string& name) : mStyle(style), mName(name) {}

void Progress::report(int32_t percent) {
    std::lock_guard<std::mutex> lock(mLock);
    percent = std::clamp(percent, 0, kWhole - 1);
    if (percent <= mLast) return;
    mLast = percent;
    show(percent);
}

void Progress::finish() {
    std::lock_guard<std::mutex> lock(mLock);
    show(kWhole);
    console::removeBar();
}

void Progress::show(int32_t percent) {
    if (mStyle == ProgressStyle::kBar) console::drawBar(barText(mName, percent));
    if (mStyle == ProgressStyle::kJson) {
        console::printLine("{\"progress\":" + std::to_string(percent) + "}");
    }
}

}  // namespace android::qmmediaeditor::cli
