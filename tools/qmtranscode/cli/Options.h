// The command line: what the user asks for, checked as far as possible without the input.
#pragma once

#include <TranscodeTypes.h>
#include <host/Host.h>
#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/cli/OutputCodecs.h>
#include <qmtranscode/cli/Values.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace android::qmmediaeditor::cli {

enum class ProgressStyle : int32_t { kNone, kBar, kJson };

// Without a value, an option follows the input.
struct Options {
    // All that was given, as a JSON object: the names of the options without hyphens in front, with
    // a text, the texts of a repeatable option, or true.
    std::string request;
    std::string input;
    std::string output;
    bool overwrite = false;
    // The pattern for the names of the outputs, one for each period, in place of `output`.
    std::optional<std::string> split;
    // For the run of one of them, counted from 0; `output` is its name then.
    std::optional<size_t> part;

    // Encode this part of the output only.
    std::optional<Section> section;
    // Encode this number of sections at the same time, and join them.
    int32_t jobs = 1;
    // Join these files, which are outputs with `section`; `input` is the first one.
    std::vector<std::string> parts;

    // To keep or to remove, in time order, without overlap; at most one of them has any. The last
    // one may end at kEndOfInputUs.
    std::vector<TrimPeriod> periods;
    std::vector<TrimPeriod> cuts;
    // Of the periods to keep, where a list has names.
    std::vector<std::string> periodNames;
    // The list that these come from.
    std::optional<std::string> list;
    // Keep the chapters of the input.
    bool keepChapters = false;

    // Both as displayed, which means after rotation; at most one of them is given.
    std::optional<Size> size;
    // The box that the output fits into.
    std::optional<Size> fit;
    std::optional<int32_t> frameRate;
    // Of the AVC encoder, as HostOptions::avcQuality.
    std::optional<int32_t> quality;
    // With a quality the max, otherwise the average.
    std::optional<int32_t> videoBitrate;
    std::optional<VideoCodec> videoCodec;
    bool noVideo = false;
    std::optional<int32_t> audioBitrate;
    std::optional<int32_t> audioRate;
    std::optional<int32_t> audioChannels;
    std::optional<AudioCodec> audioCodec;
    // Counted from 1 among the audio tracks.
    std::optional<int32_t> audioTrack;
    bool noAudio = false;
    std::optional<double> volumeDb;
    // EBU R 128, in LUFS.
    std::optional<double> loudness;
    std::optional<FileFormat> format;

    // By default, frames that are marked as interlaced are deinterlaced.
    std::optional<bool> deinterlace;

    // Patterns and names of images of the output: the first frame of each period, and a sheet of
    // the frames on either side of each cut.
    std::optional<std::string> poster;
    std::optional<std::string> contactSheet;

    bool fastStart = false;
    // Metadata of the recording: its location is dropped unless asked for.
    bool keepLocation = false;
    bool noMetadata = false;
    std::string preset = "veryfast";
    // Of each video codec; by default, as many as there are available CPUs.
    std::optional<int32_t> threads;
    // An OUTPUT that is the complete output of this request is left as it is, and a shorter one is
    // replaced.
    bool ifMissing = false;
    // An input that is what the request asks for is copied.
    bool ifNeeded = false;
    // The max size of the output in bytes.
    std::optional<int64_t> maxBytes;
    // After a stop: keep the shorter file, or remove it.
    bool keepPartial = true;

    // Decode the output and compare it with what was encoded.
    bool verify = false;
    // The lowest structural similarity that a frame may have; also verifies.
    std::optional<double> minSsim;

    // Print what would be done, and write nothing.
    bool plan = false;
    // "full", or "quick": without a dry run.
    std::string planKind;
    // The receipt as JSON.
    bool json = false;
    // By default, a bar on a terminal.
    std::optional<ProgressStyle> progress;
    // The file for the trace.
    std::optional<std::string> trace;
    // logcat filter expressions; nothing is printed without.
    std::optional<std::string> logFilter;
    std::string logFormat = "brief";

    // All files that the run reads or writes, except for images.
    std::vector<std::string> fileNames() const;
    // Whether any property of the output's tracks or its container was asked for.
    bool specifiesOutputFormat() const;
    MetadataPolicy metadataPolicy() const;
};

// Text to print on standard output: the help or the version.
struct Information {
    std::string text;
};

std::variant<Options, Information, Failure> parseOptions(int argc, const char* const* argv);

// Whether the arguments ask for the JSON object of the run, also when they cannot be parsed.
bool asksForJson(int argc, const char* const* argv);

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
