// The parent process's part of a receipt: the resources that the worker has used, and the receipt
// of a run without output.
#pragma once

#include <stdint.h>
#include <sys/resource.h>

#include <string>

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

// The receipt of a run without output: a JSON object.
std::string emptyReceipt(const std::string& input, const std::string& output);

}  // namespace android::qmmediaeditor::cli
