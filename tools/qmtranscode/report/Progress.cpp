#include <fmt/format.h>
#include <qmtranscode/cli/Console.h>
#include <qmtranscode/monitor/Timer.h>
#include <qmtranscode/report/Format.h>
#include <qmtranscode/report/Progress.h>

#include <algorithm>
#include <cmath>

namespace android::qmmediaeditor::cli {

namespace {

constexpr int32_t kComplete = 100;

// "  45 %  8.3x  0:12 left"; speed and remaining time are unknown at the start.
std::string numbersText(int32_t percent, double speed, double leftSeconds) {
    if (speed <= 0) return fmt::format("{:3} %", percent);
    std::string text = fmt::format("{:3} % {:5.1f}x", percent, speed);
    if (percent == kComplete) return text;
    constexpr double kMaxSeconds = 359999;
    const int left = static_cast<int>(std::min(leftSeconds, kMaxSeconds) + 0.5);
    if (left < 3600) return fmt::format("{} {:2}:{:02} left", text, left / 60, left % 60);
    return fmt::format("{} {}:{:02}:{:02} left", text, left / 3600, left / 60 % 60, left % 60);
}

// Fits into `columns`: without room for all, the name is left out first, then the bar.
std::string barText(const std::string& name, int32_t percent, const std::string& numbers,
                    int columns) {
    constexpr int kMaxBar = 40;
    constexpr int kMinBar = 8;
    // Fixed, so that the bar does not move. The last column stays free, because a terminal would
    // break the line there.
    constexpr int kNumberColumns = 24;
    const int room = columns - kNumberColumns - 4;
    constexpr int kPercentColumns = 5;
    if (room < 1) return numbers.substr(0, kPercentColumns);
    std::string label = console::printable(name) + ' ';
    int bar = room - console::columnsOf(label);
    if (bar < kMinBar) {
        label.clear();
        bar = room;
    }
    bar = std::min(bar, kMaxBar);
    const auto filled = static_cast<size_t>(bar * percent / kComplete);
    return label + '[' + console::green(std::string(filled, '#')) +
           std::string(static_cast<size_t>(bar) - filled, '.') + "] " + numbers;
}

}  // namespace

Progress::Progress(ProgressStyle style, const std::string& name, int64_t lengthUs, const Span& span,
                   const RunObserver& observer)
    : mStyle(style),
      mName(name),
      mLengthSeconds(static_cast<double>(lengthUs) / 1e6),
      mSpan(span),
      mObserver(observer),
      mStartUs(nowUs()) {}

Progress::~Progress() { console::removeBar(); }

void Progress::restart() {
    Mutex::Autolock lock(mLock);
    mStartUs = nowUs();
    mLast = -1;
}

void Progress::report(int32_t percent) {
    Mutex::Autolock lock(mLock);
    percent = std::clamp(percent, 0, kComplete - 1);
    if (percent <= mLast) return;
    mLast = percent;
    show(percent);
}

void Progress::finish() {
    Mutex::Autolock lock(mLock);
    show(kComplete);
    console::removeBar();
}

void Progress::show(int32_t percent) {
    if (mListener) mListener(percent);
    const double spent = static_cast<double>(nowUs() - mStartUs) / 1e6;
    const double share = static_cast<double>(percent) / kComplete;
    const double speed = spent > 0 ? share * mLengthSeconds / spent : 0;
    double left = share > 0 ? spent / share - spent : 0;
    if (mSpan.totalUs > 0) {
        const double done = secondsOf(mSpan.beforeUs) + share * mLengthSeconds;
        const double total = secondsOf(mSpan.totalUs);
        percent = static_cast<int32_t>(std::min(done / total, 1.0) * kComplete + 1e-6);
        left = speed > 0 ? (total - done) / speed : 0;
    }
    if (mStyle == ProgressStyle::kBar) {
        const std::string numbers = numbersText(percent, speed, left);
        console::drawBar(barText(mName, percent, numbers, console::width()));
    }
    if (mStyle == ProgressStyle::kJson) {
        const RunObserver::Position position = mObserver.position();
        console::printLine(dumpJsonLine({{"progress", percent},
                                         {"file", mName},
                                         {"time", secondsOf(position.timeUs)},
                                         {"frames", position.frames},
                                         {"speed", std::round(speed * 100) / 100},
                                         {"seconds_left", std::round(left * 10) / 10}}));
    }
}

}  // namespace android::qmmediaeditor::cli
