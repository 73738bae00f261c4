#include <fakes/Journal.h>
#include <stdarg.h>
#include <stdio.h>

#include <algorithm>

namespace android::qmmediaeditor {

void Journal::add(const std::string& line) {
    std::function<void()> run;
    {
        std::lock_guard<std::mutex> guard(mLock);
        mLines.push_back(line);
        mAdded.notify_all();
        const auto hook = mHooks.find(line);
        if (hook == mHooks.end() || --hook->second.left > 0) return;
        run = std::move(hook->second.run);
        mHooks.erase(hook);
    }
    run();
}

void Journal::addf(const char* format, ...) {
    char line[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
    add(line);
}

void Journal::on(const std::string& line, std::function<void()> hook, size_t nth) {
    std::lock_guard<std::mutex> guard(mLock);
    mHooks[line] = {nth, std::move(hook)};
}

void Journal::clear() {
    std::lock_guard<std::mutex> guard(mLock);
    mLines.clear();
}

std::vector<std::string> Journal::lines() const {
    std::lock_guard<std::mutex> guard(mLock);
    return mLines;
}

std::vector<std::string> Journal::linesOf(const std::string& prefix) const {
    std::vector<std::string> found;
    for (const std::string& line : lines()) {
        if (line.compare(0, prefix.size(), prefix) == 0) found.push_back(line);
    }
    return found;
}

std::vector<std::string> Journal::orderOf(const std::vector<std::string>& wanted) const {
    std::vector<std::string> found;
    for (const std::string& line : lines()) {
        if (std::find(wanted.begin(), wanted.end(), line) != wanted.end()) found.push_back(line);
    }
    return found;
}

size_t Journal::count(const std::string& line) const {
    std::lock_guard<std::mutex> guard(mLock);
    return countLocked(line);
}

size_t Journal::countLocked(const std::string& line) const {
    return static_cast<size_t>(std::count(mLines.begin(), mLines.end(), line));
}

bool Journal::waitFor(const std::string& line, size_t times) const {
    std::unique_lock<std::mutex> guard(mLock);
    return mAdded.wait_for(guard, kFailureBound, [&] { return countLocked(line) >= times; });
}

}  // namespace android::qmmediaeditor
