// What the user asked for: the command line, checked as far as that is possible without the input.
#pragma once

#include <TranscodeTypes.h>
#include <qmtranscode/cli/Values.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

// The values are those of the output-format message.
enum class FileFormat : int32_t { k3gp = 1, kMp4 = 2 };
enum class VideoCodec : int32_t { kAvc = 2, kH263 = 1, kMpeg4 = 3 };
enum class AudioCodec : int32_t { kAac = 3, kAmrNb = 1, kAmrWb = 2 };

enum class ProgressStyle { kNone, kBar, kJson };

struct Options {
    std::string input;
    std::string output;
    bool overwrite = false;

    // In time order, without overlap.
    std::vector<TrimPeriod> periods;

    std::optional<Size> size;
    std::optional<int32_t> frameRate;
    std::optional<int32_t> videoBitrate;
    std::optional<VideoCodec> videoCodec;
    std::optional<int32_t> audioBitrate;
    std::optional<int32_t> audioRate;
    std::optional<int32_t> audioChannels;
    std::optional<AudioCodec> audioCodec;
    std::optional<FileFormat> format;

    bool fastStart = false;
    std::string preset = "veryfast";
    // Of each video codec; by the CPUs that are available when not given.
    std::optional<int32_t> threads;
    // After a stop: keep the shorter file, or nothing.
    bool keepPartial = true;

    // Say what would be done, and do nothing.
    bool plan = false;
    // The receipt on standard output as JSON.
    bool json = false;
    ProgressStyle progress = ProgressStyle::kNone;
    // Where a trace of the run goes; none without.
    std::optional<std::string> trace;
    // Logcat's filter expressions; nothing is logged without.
    std::optional<std::string> logFilter;
    std::string logFormat = "brief";

    // Whether anything about the output's tracks or kind was asked for.
    bool namesOutputFormat() const;
    // Where the periods begin and end, microseconds, rising.
    std::vector<int64_t> cutTimesUs() const;
};

// Nothing when there is work to do; else the status to exit with, after help, version or the reason
// have been printed.
std::optional<int> parseOptions(int argc, char** argv, Options* options);

}  // namespace android::qmmediaeditor::cli
