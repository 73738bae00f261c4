// The parent process's part of a report: the head of the JSON object that --json prints for every
// run, however it ends, and the resources that the worker has used. The rest is the worker's
// receipt or plan, where there is one.
#pragma once

#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/cli/Options.h>
#include <stdint.h>
#include <sys/resource.h>

#include <string>
#include <string_view>

namespace android::qmmediaeditor::cli {

// The resources that a process has used. The process that writes the receipt cannot know them, so
// that the receipt has marks in their places, which the parent process replaces.
struct Usage {
    double cpuSeconds = 0;  // of all threads
    int64_t peakBytes = 0;  // resident memory
};
Usage usageOf(const rusage& usage);
// Control characters, which a receipt does not contain otherwise.
constexpr char kCpuTextMark = 1;
constexpr char kMemoryTextMark = 2;
constexpr char kCpuJsonMark = 3;
constexpr char kMemoryJsonMark = 4;
constexpr const char* kUsageMarks = "\x01\x02\x03\x04";
// The text that replaces a mark.
std::string usageText(const Usage& usage, char mark);

// Appends the text of a receipt, with the usage in its places. False, with errno, when it cannot be
// read from `fd`.
bool readReceipt(int fd, const Usage& usage, std::string* text);

// How a run ends.
struct RunEnd {
    // "complete", "already" and "kept" for --if-missing and --if-needed, "stopped" with a shorter
    // file, "nothing written" after a stop, "failed" or "planned".
    std::string_view status;
    int exitStatus = kExitComplete;
    // The step that failed: "options", "opening", "transcoding", "verifying" or "publishing".
    std::string_view stage;
    // As Failure has them; no code for a run without an error.
    std::string_view code;
    std::string_view subject;
    std::string_view reason;
};

// Whether another try with the same request may succeed.
bool isRetryable(const RunEnd& end);

// The members of an object without receipt: the input and the output, without braces.
std::string namesOf(const Options& options);

// The members of a receipt or a plan: its text without braces.
std::string_view membersOf(std::string_view text);

// Sets `object` to the object of a run. `warnings` are lines; `request` is a JSON value; `members`
// may be empty. Does not allocate while the capacity of `object` is sufficient.
void makeObject(const RunEnd& end, std::string_view warnings, std::string_view request,
                std::string_view members, std::string* object);

}  // namespace android::qmmediaeditor::cli
