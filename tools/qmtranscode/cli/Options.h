// The command line: what the user asks for, checked as far as possible without the input.
#pragma once

#include <TranscodeTypes.h>
#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/cli/OutputCodecs.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace android::qmmediaeditor::cli {

enum class ProgressStyle : int32_t { kNone, kBar, kJson };

// Without a value, an option follows the input.
struct Options {
    std::string input;
    std::string output;
    bool overwrite = false;

    // In time order, without overlap.
    std::vector<TrimPeriod> periods;

    // As displayed, which means after rotation.
    std::optional<Size> size;
    std::optional<int32_t> frameRate;
    std::optional<int32_t> videoBitrate;
    std::optional<VideoCodec> videoCodec;
    std::optional<int32_t> audioBitrate;
    std::optional<int32_t> audioRate;
    std::optional<int32_t> audioChannels;
    std::optional<AudioCodec> audioCodec;
    std::optional<FileFormat> format;

    // By default, frames that are marked as interlaced are deinterlaced.
    std::optional<bool> deinterlace;

    bool fastStart = false;
    std::string preset = "veryfast";
    // Of each video codec; by default, as many as there are available CPUs.
    std::optional<int32_t> threads;
    // After a stop: keep the shorter file, or remove it.
    bool keepPartial = true;

    // Print what would be done, and write nothing.
    bool plan = false;
    // The receipt as JSON.
    bool json = false;
    // By default, a bar on a terminal.
    std::optional<ProgressStyle> progress;
    // The file for the trace.
    std::optional<std::string> trace;
    // logcat filter expressions; nothing is printed without.
    std::optional<std::string> logFilter;
    std::string logFormat = "brief";

    // Whether any property of the output's tracks or its container was asked for.
    bool specifiesOutputFormat() const;
    // Start and end of each period, in microseconds, rising.
    std::vector<int64_t> cutTimesUs() const;
};

// Text to print on standard output: the help or the version.
struct Information {
    std::string text;
};

std::variant<Options, Information, Failure> parseOptions(int argc, const char* const* argv);

// One option, or a group of them, as the help, the manual page, the completion and the README
// describe it.
struct OptionText {
    std::string group;
    std::string name;                  // "--size"
    std::string value;                 // "WxH"; empty for a flag
    std::string summary;               // one phrase
    std::string details;               // sentences that the help has no room for; may be empty
    std::vector<std::string> choices;  // the values that can be completed
};

// All options in the order of the help, from the definition that parseOptions() uses.
std::vector<OptionText> optionTexts();

}  // namespace android::qmmediaeditor::cli
