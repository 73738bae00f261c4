#include <fmt/format.h>
#include <host/codec/InputLimits.h>
#include <qmtranscode/cli/Combinations.h>
#include <qmtranscode/cli/NumberedName.h>
#include <qmtranscode/cli/OptionTable.h>
#include <qmtranscode/cli/Options.h>
#include <qmtranscode/cli/Validators.h>
#include <qmtranscode/cli/Values.h>
#include <qmtranscode/report/Format.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <numeric>
#include <utility>

namespace CLI::detail {

// Validators have accepted the text by the time that it is converted.
template <>
bool lexical_cast(const std::string& text, android::qmmediaeditor::cli::Size& size) {
    size = *android::qmmediaeditor::cli::parseSize(text);
    return true;
}

template <>
bool lexical_cast(const std::string& text, android::qmmediaeditor::TrimPeriod& period) {
    period = *android::qmmediaeditor::cli::parsePeriod(text);
    return true;
}

template <>
bool lexical_cast(const std::string& text, android::qmmediaeditor::cli::Section& section) {
    section = *android::qmmediaeditor::cli::parseSection(text);
    return true;
}

}  // namespace CLI::detail

namespace android::qmmediaeditor::cli {

namespace {

constexpr int32_t kMinSampleRate = 7350;
constexpr int32_t kMaxThreads = 64;
constexpr int32_t kMaxJobs = 64;
// At 0, x264 encodes without loss, which few players support.
constexpr int32_t kMinQuality = 1;
constexpr int32_t kMaxQuality = 51;
// Many more than files have.
constexpr int32_t kMaxAudioTrack = 64;
constexpr double kMaxVolumeDb = 60;
constexpr double kMinLoudness = -70;
constexpr double kMaxLoudness = -5;

const Choices<ProgressStyle> kProgressStyles = {
    {"bar", ProgressStyle::kBar}, {"json", ProgressStyle::kJson}, {"none", ProgressStyle::kNone}};
const Choices<bool> kDeinterlaceChoices = {{"auto", true}, {"off", false}};
const Choices<bool> kPartialChoices = {{"keep", true}, {"discard", false}};
const std::vector<std::string> kPresets = {"ultrafast", "superfast", "veryfast", "faster",
                                           "fast",      "medium",    "slow",     "slower",
                                           "veryslow",  "placebo"};
const std::vector<std::string> kPlanKinds = {"full", "quick"};
const std::vector<std::string> kLogFormats = {"brief", "process", "tag",        "thread",
                                              "raw",   "time",    "threadtime", "long"};

// How many letters must be inserted, removed or replaced to turn one word into the other.
size_t editDistance(const std::string& from, const std::string& to) {
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (size_t i = 0; i < from.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i + 1;
        for (size_t j = 0; j < to.size(); ++j) {
            const size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

// The definition of all options: names, values and descriptions.
class CommandLine {
public:
    CommandLine() {
        define();
        mApp.formatter_fn([this](const CLI::App*, const std::string&, CLI::AppFormatMode) {
            return helpText(mTexts);
        });
        for (CLI::Option* option : mApp.get_options()) {
            mByName[option->get_name()] = option;
            const bool takesText = option->get_items_expected_max() > 0;
            if (!takesText) continue;
            option->check(notEmpty());
            // Before the transformations, which replace words by numbers.
            option->transform([this, option](const std::string& text) {
                mGiven[option].push_back(text);
                return text;
            });
        }
    }

    std::variant<Options, Information, Failure> parse(int argc, const char* const* argv);
    const std::vector<OptionText>& texts() const { return mTexts; }

private:
    void define();
    void describe(const std::string& name, const std::string& value, const std::string& summary,
                  const std::string& details = "", const std::vector<std::string>& choices = {}) {
        mTexts.push_back({mGroup, name, value, summary, details, choices});
    }

    // The options as they were given.
    std::string request() const;
    Failure unknownArgument() const;
    Failure usageError(const CLI::Error& error) const;
    void takeParts();
    std::vector<std::string> surplus() const;

    Options mOptions;
    bool mJoin = false;
    CLI::App mApp;
    // CLI11's own lookup ends the process when memory is short.
    std::map<std::string, const CLI::Option*> mByName;
    std::map<const CLI::Option*, std::vector<std::string>> mGiven;
    std::string mGroup;
    std::vector<OptionText> mTexts;
};

void CommandLine::define() {
    Options& o = mOptions;
    CLI::App& app = mApp;
    app.add_option("INPUT", o.input);
    app.add_option("OUTPUT", o.output);

    mGroup = "";
    app.add_option("--trim", o.periods)->check(period())->type_size(1)->allow_extra_args(false);
    describe(
        "--trim", "START-END",
        "keep this period; seconds or h:mm:ss.mmm; repeatable, in time order",
        "Periods must not overlap. A period ends at the latest where the input ends; START- means "
        "up to the end.");
    app.add_option("--cut", o.cuts)->check(period())->type_size(1)->allow_extra_args(false);
    describe("--cut", "START-END", "remove this period and keep the rest; repeatable");
    app.add_option("--list", o.list);
    describe(
        "--list", "FILE",
        "take the periods from a CSV or EDL file or, with the value chapters, from the input's chapters",
        "A line START,END or START,END,NAME of a CSV keeps a period. A line START END 0 of an "
        "EDL removes one. To read a file that is named chapters, write ./chapters.");

    app.add_option("--split", o.split)->check(namePattern());
    describe("--split", "PATTERN", "not OUTPUT, but a file per period, as part-%02d.mp4",
             "The files are numbered from 1 and made one after the other. Each is complete or "
             "absent; a failure or a stop leaves those that are complete.");

    mGroup = "Video";
    app.add_option("--fit", o.fit)->check(boxSize());
    describe("--fit", "WxH", "fit into this box; keeps the aspect ratio and never enlarges",
             "The box is turned for an upright input.");
    // The last one is checked first.
    app.add_option("--size", o.size)->check(frameSize())->check(boxSize());
    describe("--size", "WxH", "exact frame size as displayed; width and height even",
             fmt::format("Each is from {} to {}, and a frame has at most {} pixels.", kMinSide,
                         kMaxSide, kMaxPixels));
    app.add_option("--fps", o.frameRate)->transform(integer(1, kMaxFrameRate));
    describe("--fps", "N", fmt::format("max frames per second, 1 to {}", kMaxFrameRate),
             "Frames above this rate are dropped; no frame is duplicated.");
    app.add_option("--video-bitrate", o.videoBitrate)->transform(bitrate());
    describe("--video-bitrate", "RATE",
             "average bits per second, such as 4M; with --quality the max");
    app.add_option("--quality", o.quality)->transform(integer(kMinQuality, kMaxQuality));
    describe("--quality", "N",
             fmt::format("constant quality of AVC, {} (best) to {}; default {}", kMinQuality,
                         kMaxQuality, kDefaultQuality),
             "x264's CRF. The default applies when --video-bitrate is not given. With the default, "
             "there is a max bit rate: that of the input, in proportion to the number of pixels, "
             "and higher where the input's codec needs fewer bits than AVC.");
    app.add_option("--video-codec", o.videoCodec)->transform(oneOf(videoCodecs()));
    describe("--video-codec", "NAME",
             "codec: " + listText(wordsOf(videoCodecs())) + "; default avc",
             supportedSizesText(VideoCodec::kH263) + ".", wordsOf(videoCodecs()));
    app.add_option("--deinterlace", o.deinterlace)->transform(oneOf(kDeinterlaceChoices));
    describe("--deinterlace", "CHOICE", "deinterlace marked frames: auto (the default) or off",
             "libavfilter's bwdif makes one progressive frame of the two fields of an interlaced "
             "one. Without libavfilter, frames keep their fields, with a warning.",
             wordsOf(kDeinterlaceChoices));

    app.add_flag("--no-video", o.noVideo);
    describe("--no-video", "", "leave the video out");

    mGroup = "Audio";
    app.add_option("--audio-track", o.audioTrack)->transform(integer(1, kMaxAudioTrack));
    describe("--audio-track", "N", "take the N-th audio track; default 1",
             "--plan lists the tracks with their languages.");
    app.add_flag("--no-audio", o.noAudio);
    describe("--no-audio", "", "leave the audio out");
    app.add_option("--audio-bitrate", o.audioBitrate)->transform(bitrate());
    describe("--audio-bitrate", "RATE", "bits per second, such as 128k");
    app.add_option("--audio-rate", o.audioRate)
        ->transform(integer(kMinSampleRate, kMaxAacSampleRate));
    describe("--audio-rate", "HZ",
             fmt::format("sample rate in Hz, {} to {}", kMinSampleRate, kMaxAacSampleRate));
    app.add_option("--audio-channels", o.audioChannels)->transform(integer(1, kMaxAacChannels));
    describe("--audio-channels", "N", fmt::format("number of channels, 1 to {}", kMaxAacChannels));
    app.add_option("--audio-codec", o.audioCodec)->transform(oneOf(audioCodecs()));
    describe("--audio-codec", "NAME",
             "codec: " + listText(wordsOf(audioCodecs())) + "; default aac",
             "AMR is mono: 8000 Hz in AMR-NB, 16000 Hz in AMR-WB.", wordsOf(audioCodecs()));

    app.add_option("--volume", o.volumeDb)->transform(level("dB", -kMaxVolumeDb, kMaxVolumeDb));
    describe("--volume", "GAIN", "change the volume by this gain, such as -3dB",
             "Samples beyond full scale are clipped.");
    app.add_option("--loudness", o.loudness)->transform(level("LUFS", kMinLoudness, kMaxLoudness));
    describe("--loudness", "LUFS", "integrated loudness of the output, such as -16",
             "It is measured by EBU R 128, for which the input's audio is decoded once more. Peaks "
             "are limited to -1 dBTP before the audio is encoded.");

    mGroup = "Output file";
    app.add_option("--format", o.format)->transform(oneOf(fileFormats()));
    describe("--format", "NAME", "container: " + listText(wordsOf(fileFormats())),
             "The default is 3gp for H.263, for AMR and for an output name that ends in .3gp, "
             "otherwise mp4.",
             wordsOf(fileFormats()));
    app.add_flag("--faststart", o.fastStart);
    describe("--faststart", "", "write the index first, for playback while the file loads");
    CLI::Option* const keepLocation = app.add_flag("--keep-location", o.keepLocation);
    describe("--keep-location", "", "also keep the location of the recording",
             "Without this option, uuid boxes whose XMP has a GPS position are dropped as well.");
    app.add_flag("--no-metadata", o.noMetadata)->excludes(keepLocation);
    describe("--no-metadata", "", "drop date, title, language, maker, model and software",
             "Without this option, they are those of the input.");
    app.add_option("--preset", o.preset)->check(oneOf(kPresets));
    describe("--preset", "NAME",
             fmt::format("speed of the AVC encoder, {} to {}; default {}", kPresets.front(),
                         kPresets.back(), o.preset),
             "The values are " + listText(kPresets) + ".", kPresets);
    app.add_option("--threads", o.threads)->transform(integer(1, kMaxThreads));
    describe("--threads", "N",
             fmt::format("threads per video codec, 1 to {}; default: one per available CPU, at "
                         "most 16",
                         kMaxThreads),
             "A CPU is available when the affinity mask and the CPU quota of the control group "
             "allow it.");
    app.add_flag("--overwrite", o.overwrite);
    describe("--overwrite", "", "replace OUTPUT if it exists");
    app.add_option("--poster", o.poster)->check(namePattern());
    describe("--poster", "PATTERN",
             "write the first frame of each period as JPEG, such as p-%02d.jpg");
    app.add_option("--contact-sheet", o.contactSheet);
    describe(
        "--contact-sheet", "FILE", "write a JPEG of the frames before and after each cut",
        "One pair for each cut, in reading order; without cuts, the first and the last frame.");
    app.add_flag("--if-missing", o.ifMissing);
    describe("--if-missing", "", "do nothing if OUTPUT is complete; replace it if it is shorter",
             "An OUTPUT that this request would not make is refused.");
    app.add_flag("--if-needed", o.ifNeeded);
    describe("--if-needed", "", "copy INPUT if it already is what is asked for",
             "The reasons for which it is encoded are in the JSON object.");
    app.add_option("--max-bytes", o.maxBytes)->transform(bytes());
    describe("--max-bytes", "SIZE", "max size of OUTPUT, such as 25M; sets the bit rate",
             "The run is repeated at most twice, when the output is too large or much smaller than "
             "it may be.");
    app.add_option("--partial", o.keepPartial)->transform(oneOf(kPartialChoices));
    describe("--partial", "CHOICE", "keep or discard the shorter file after a stop; default keep",
             "", wordsOf(kPartialChoices));

    app.add_flag("--verify", o.verify);
    describe("--verify", "", "decode the output and compare it with the encoders' input",
             "The receipt then has the mean and the worst structural similarity (SSIM) of the "
             "frames, and the level and the offset of the audio. An output with a wrong frame, or "
             "with audio that is more than 20 ms early or late, is not kept.");
    app.add_option("--min-ssim", o.minSsim)->transform(level("", 0, 1));
    describe("--min-ssim", "N", "verify, and fail if the SSIM of a frame is below N");

    mGroup = "Long inputs";
    app.add_option("--jobs", o.jobs)->transform(integer(1, kMaxJobs));
    describe("--jobs", "N", fmt::format("encode N sections at the same time, 1 to {}", kMaxJobs),
             "The video is cut at key frames, and the sections are joined without loss. Each codec "
             "gets its share of the threads.");
    app.add_option("--section", o.section)->check(section());
    describe(
        "--section", "K/N", "encode section K of N only; 0 is the audio; see --join",
        "Sections 1 to N have the video. Each can be encoded on another machine, with the same "
        "input and options. OUTPUT is then a part for --join.");
    app.add_flag("--join", mJoin);
    describe("--join", "", "join the sections: qmtranscode --join PART... OUTPUT",
             "All parts of 0 to N are needed, in any order. Nothing is encoded.");

    mGroup = "Reports";
    app.add_flag("--plan{full}", o.planKind)->check(oneOf(kPlanKinds));
    describe(
        "--plan", "", "print what would be done, as JSON; --plan=quick without a dry run",
        "Nothing is written. The plan names the tracks and why each is used or not, the decoders and encoders, "
        "each value of the output and where it comes from, the seek points of the periods, "
        "and an estimate of size and time from a dry run of two seconds.");
    app.add_flag("--json", o.json);
    describe("--json", "", "print one JSON object: how the run ended, and the receipt",
             "Its schema is in share/qmtranscode/run.schema.json.");
    app.add_option("--progress", o.progress)->transform(oneOf(kProgressStyles));
    describe("--progress", "STYLE",
             "display: " + listText(wordsOf(kProgressStyles)) +
                 "; default: bar on a terminal, otherwise none",
             "Progress is printed on standard error.", wordsOf(kProgressStyles));
    app.add_option("--trace", o.trace);
    describe("--trace", "FILE", "write a trace of the run, for https://ui.perfetto.dev",
             "It shows threads, waits and queue lengths, and is also written when the run fails "
             "or is stopped.");
    app.add_option("--log", o.logFilter)->check(logFilter());
    describe("--log", "FILTER", "print the log with a logcat filter, such as 'Transcode:V *:S'");
    app.add_option("--log-format", o.logFormat)->check(oneOf(kLogFormats));
    describe("--log-format", "NAME",
             "logcat format: " + listText(kLogFormats) + "; default " + o.logFormat, "",
             kLogFormats);
    app.set_help_flag("--help");
    describe("--help", "", "print this help");
    app.set_version_flag("--version", "qmtranscode " QMTRANSCODE_VERSION);
    describe("--version", "", "print the version");
}

std::variant<Options, Information, Failure> CommandLine::parse(int argc, const char* const* argv) {
    try {
        // The parts of --join.
        mApp.allow_extras();
        mApp.parse(argc, argv);
        const std::vector<std::string> more = surplus();
        const bool areParts = mJoin && std::none_of(more.begin(), more.end(), [](const auto& word) {
                                  return word.size() > 1 && word[0] == '-';
                              });
        if (!more.empty() && !areParts) return unknownArgument();
        if (mJoin) takeParts();
    } catch (const CLI::Success& success) {
        std::ostringstream text;
        mApp.exit(success, text, text);
        return Information{text.str()};
    } catch (const CLI::Error& error) {
        // Values are checked before the help flag is handled.
        if (mApp.get_help_ptr()->count() > 0) return Information{helpText(mTexts)};
        return usageError(error);
    }
    if (mOptions.split && mOptions.output.empty()) mOptions.output = *mOptions.split;
    if (mOptions.output.empty()) {
        return Failure{kExitUsage, "",
                       fmt::format("{} missing (see qmtranscode --help)",
                                   mOptions.input.empty() ? "INPUT and OUTPUT are" : "OUTPUT is"),
                       "missing-argument"};
    }
    mOptions.request = request();
    mOptions.plan = mByName.at("--plan")->count() > 0;
    if (auto failure = Combinations(mByName, mOptions).check()) return *failure;
    mOptions.verify = mOptions.verify || mOptions.minSsim;
    return mOptions;
}

// The last name is OUTPUT.
void CommandLine::takeParts() {
    mOptions.parts = {mOptions.input, mOptions.output};
    for (const std::string& word : surplus()) mOptions.parts.push_back(word);
    mOptions.output = mOptions.parts.back();
    mOptions.parts.pop_back();
}

std::string CommandLine::request() const {
    Json request = Json::object();
    for (const CLI::Option* option : mApp.get_options()) {
        if (option->count() == 0) continue;
        const auto given = mGiven.find(option);
        std::string name = option->get_name();
        std::transform(name.begin(), name.end(), name.begin(), ::tolower);
        Json& value = request[name.substr(name.find_first_not_of('-'))];
        if (given == mGiven.end()) {
            value = option->results().back() != "quick" ? Json(true) : Json("quick");
        } else if (option->get_items_expected_max() > 1) {
            value = given->second;
        } else {
            value = given->second.back();
        }
    }
    return dumpJsonLine(request);
}

// The arguments that are neither options nor INPUT and OUTPUT. `--` is none of them.
std::vector<std::string> CommandLine::surplus() const {
    std::vector<std::string> words = mApp.remaining();
    words.erase(std::remove(words.begin(), words.end(), "--"), words.end());
    return words;
}

Failure CommandLine::unknownArgument() const {
    const std::vector<std::string> words = surplus();
    const auto option = std::find_if(words.begin(), words.end(),
                                     [](const std::string& word) { return word[0] == '-'; });
    if (option == words.end()) {
        return {kExitUsage, words.empty() ? "--" : words.front(),
                "unexpected argument, because INPUT and OUTPUT are already given",
                "unexpected-argument"};
    }
    // A longer one is no misspelt option, and comparing it would take long.
    constexpr size_t kMaxNameBytes = 64;
    const std::string name = option->substr(0, std::min(option->find('='), kMaxNameBytes));
    const auto nearest =
        std::min_element(mTexts.begin(), mTexts.end(), [&name](const auto& a, const auto& b) {
            return editDistance(name, a.name) < editDistance(name, b.name);
        });
    constexpr size_t kMaxTypos = 2;
    const bool isTypo =
        name.size() > 2 * kMaxTypos && editDistance(name, nearest->name) <= kMaxTypos;
    return {kExitUsage, name,
            isTypo ? fmt::format("unknown option; did you mean {}?", nearest->name)
                   : "unknown option; see qmtranscode --help",
            "unknown-option"};
}

Failure CommandLine::usageError(const CLI::Error& error) const {
    // "--option: reason", or "--option:  value: reason" for a refused value.
    std::string text = error.what();
    const size_t nameEnd = text.find(':');
    if (nameEnd == std::string::npos) {
        return {kExitUsage, "", text + " (see qmtranscode --help)", "bad-value"};
    }
    if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr) {
        return {kExitUsage, text.substr(0, nameEnd), "the value is missing", "missing-value"};
    }
    if (text.compare(nameEnd, 3, ":  ") == 0) text.erase(nameEnd, 2);
    const size_t subjectEnd = std::min(text.find(": "), text.size());
    const size_t reasonBegin = std::min(subjectEnd + 2, text.size());
    return {kExitUsage, text.substr(0, subjectEnd), text.substr(reasonBegin), "bad-value"};
}

}  // namespace

std::vector<std::string> Options::fileNames() const {
    std::vector<std::string> names = {input, output};
    if (trace) names.push_back(*trace);
    if (list && !keepChapters) names.push_back(*list);
    return names;
}

bool Options::specifiesOutputFormat() const {
    return size || fit || frameRate || videoBitrate || videoCodec || audioBitrate || audioRate ||
           audioChannels || audioCodec || format;
}

MetadataPolicy Options::metadataPolicy() const {
    if (noMetadata) return MetadataPolicy::kNone;
    return keepLocation ? MetadataPolicy::kAll : MetadataPolicy::kWithoutLocation;
}

std::variant<Options, Information, Failure> parseOptions(int argc, const char* const* argv) {
    return CommandLine().parse(argc, argv);
}

bool asksForJson(int argc, const char* const* argv) {
    const auto* const end = std::find(argv, argv + argc, std::string("--"));
    return std::find(argv, end, std::string("--json")) != end;
}

std::vector<OptionText> optionTexts() { return CommandLine().texts(); }

}  // namespace android::qmmediaeditor::cli
