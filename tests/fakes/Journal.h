// The calls of every fake of a test, in order: one line per call. Any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace android::qmmediaeditor {

// How long a test waits for an event that a correct program always brings.
constexpr std::chrono::seconds kFailureBound(10);

class Journal {
public:
    // Runs the hook of that line, if it has one, on the calling thread.
    void add(const std::string& line);
    void addf(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // `hook` runs once, when `line` is added for the `nth` time from now.
    void on(const std::string& line, std::function<void()> hook, size_t nth = 1);

    // Forgets the lines so far.
    void clear();

    std::vector<std::string> lines() const;
    // Those that begin with `prefix`.
    std::vector<std::string> linesOf(const std::string& prefix) const;
    size_t count(const std::string& line) const;
    // Those of `lines` that were added, in the order in which they were.
    std::vector<std::string> orderOf(const std::vector<std::string>& lines) const;
    // False when `line` was not added `times` times within kFailureBound.
    bool waitFor(const std::string& line, size_t times = 1) const;

private:
    struct Hook {
        size_t left;
        std::function<void()> run;
    };

    size_t countLocked(const std::string& line) const;

    mutable std::mutex mLock;
    mutable std::condition_variable mAdded;
    std::vector<std::string> mLines;
    std::map<std::string, Hook> mHooks;
};

}  // namespace android::qmmediaeditor
