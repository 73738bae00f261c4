#include <qmtranscode/Console.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <mutex>

namespace android::qmmediaeditor::cli::console {

namespace {

// Back to the first column, and clear to the end of the line.
constexpr const char* kEraseLine = "\r\x1b[K";

std::mutex gLock;
std::string gBar;

void write(const std::string& text) {
    fwrite(text.data(), 1, text.size(), stderr);
    fflush(stderr);
}

}  // namespace

void printLine(const std::string& text) {
    std::lock_guard<std::mutex> lock(gLock);
    write(gBar.empty() ? text + '\n' : kEraseLine + text + '\n' + gBar);
}

void printFailure(const Failure& failure) {
    removeBar();
    std::string line = "qmtranscode: ";
    if (!failure.subject.empty()) line += failure.subject + ": ";
    printLine(line + failure.reason);
}

void drawBar(const std::string& bar) {
    std::lock_guard<std::mutex> lock(gLock);
    gBar = bar;
    write(kEraseLine + bar);
}

void removeBar() {
    std::lock_guard<std::mutex> lock(gLock);
    if (gBar.empty()) return;
    gBar.clear();
    write(kEraseLine);
}

int width() {
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
    return size.ws_col;
}

}  // namespace android::qmmediaeditor::cli::console
