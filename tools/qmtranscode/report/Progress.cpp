#include <qmtranscode/cli/Console.h>
#include <qmtranscode/monitor/LogOutput.h>
#include <qmtranscode/report/Progress.h>
#include <stdio.h>

#include <algorithm>

namespace android::qmmediaeditor::cli {

namespace {

constexpr int32_t kWhole = 100;

// "  45 %  8.3x  0:12 left"; the speed and the time that is left are not known at the start.
std::string numbersText(int32_t percent, double speed, double leftSeconds) {
    char text[64];
    if (speed <= 0) {
        snprintf(text, sizeof(text), "%3d %%", percent);
    } else if (percent == kWhole) {
        snprintf(text, sizeof(text), "%3d %% %5.1fx", percent, speed);
    } else {
        const int left = static_cast<int>(std::min(leftSeconds, 359999.0) + 0.5);
        if (left < 3600) {
            snprintf(text, sizeof(text), "%3d %% %5.1fx %2d:%02d left", percent, speed, left / 60,
                     left % 60);
        } else {
            snprintf(text, sizeof(text), "%3d %% %5.1fx %d:%02d:%02d left", percent, speed,
                     left / 3600, left / 60 % 60, left % 60);
        }
    }
    return text;
}

// Fits `columns`: the name goes first when there is no room for all, and the bar next.
std::string barText(const std::string& name, int32_t percent, const std::string& numbers,
                    int columns) {
    constexpr int kLongestBar = 40;
    constexpr int kShortestBar = 8;
    // The numbers keep their place as they grow, and the last column stays free, so that the
    // terminal does not break the line.
    constexpr int kNumberColumns = 24;
    const int room = columns - kNumberColumns - 4;
    constexpr int kPercentColumns = 5;
    if (room < 1) return numbers.substr(0, kPercentColumns);
    std::string label = console::printable(name) + ' ';
    int bar = room - console::columnsOf(label);
    if (bar < kShortestBar) {
        label.clear();
        bar = room;
    }
    bar = std::min(bar, kLongestBar);
    const auto filled = static_cast<size_t>(bar * percent / kWhole);
    return label + '[' + console::green(std::string(filled, '#')) +
           std::string(static_cast<size_t>(bar) - filled, '.') + "] " + numbers;
}

}  // namespace

Progress::Progress(ProgressStyle style, const std::string& name, int64_t lengthUs)
    : mStyle(style),
      mName(name),
      mLengthSeconds(static_cast<double>(lengthUs) / 1e6),
      mBeginUs(nowUs()) {}

Progress::~Progress() { console::removeBar(); }

void Progress::report(int32_t percent) {
    Mutex::Autolock lock(mLock);
    percent = std::clamp(percent, 0, kWhole - 1);
    if (percent <= mLast) return;
    mLast = percent;
    show(percent);
}

void Progress::finish() {
    Mutex::Autolock lock(mLock);
    show(kWhole);
    console::removeBar();
}

void Progress::show(int32_t percent) {
    const double spent = static_cast<double>(nowUs() - mBeginUs) / 1e6;
    const double share = static_cast<double>(percent) / kWhole;
    const double speed = spent > 0 ? share * mLengthSeconds / spent : 0;
    const double left = share > 0 ? spent / share - spent : 0;
    if (mStyle == ProgressStyle::kBar) {
        const std::string numbers = numbersText(percent, speed, left);
        console::drawBar(barText(mName, percent, numbers, console::width()));
    }
    if (mStyle == ProgressStyle::kJson) {
        char line[96];
        snprintf(line, sizeof(line), "{\"progress\":%d,\"speed\":%.2f,\"seconds_left\":%.1f}",
                 percent, speed, left);
        console::printLine(line);
    }
}

}  // namespace android::qmmediaeditor::cli
