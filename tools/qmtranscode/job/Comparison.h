// Whether a file already is what a request asks for, for --if-missing and --if-needed. Only the
// worker calls these: they read files with the platform's extractor.
#pragma once

#include <qmtranscode/job/JobFiles.h>
#include <qmtranscode/job/Request.h>

#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

// A difference for people: "the video has 640x360 instead of 1280x720".
using Differences = std::vector<std::string>;

// How an existing output differs from what the request makes of the input. Quality and bit rates
// are not compared, and frames are not decoded.
struct OutputComparison {
    // It is another file, not an output of this request.
    Differences others;
    // It ends early, as after a stop, or is cut off.
    Differences missing;
};
// `fd` is the output's.
OutputComparison compareOutput(const Options& options, const JobInput& input,
                               const KeptPeriods& kept, int fd);

// Why the input must be encoded; empty if a copy of it is what the request asks for.
Differences whyNeeded(const Options& options, const JobInput& input, const KeptPeriods& kept);

// Copies all bytes behind each other's beginning. Blocks are shared where the file system can.
// Returns -1 with errno on error.
int copyFile(int from, int to);

}  // namespace android::qmmediaeditor::cli
