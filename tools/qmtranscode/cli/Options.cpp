#include <errno.h>
#include <host/media/Limits.h>
#include <log/logprint.h>
#include <qmtranscode/cli/Console.h>
#include <qmtranscode/cli/OptionTable.h>
#include <qmtranscode/cli/Options.h>
#include <qmtranscode/cli/OutputCodecs.h>
#include <string.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <numeric>
#include <sstream>
#include <utility>

namespace android::qmmediaeditor::cli {

namespace {

constexpr int32_t kSmallestSide = 2;
constexpr int32_t kMaxThreads = 64;

template <typename T>
using Words = std::vector<std::pair<const char*, T>>;

const Words<VideoCodec> kVideoCodecs = {
    {"avc", VideoCodec::kAvc}, {"h263", VideoCodec::kH263}, {"mpeg4", VideoCodec::kMpeg4}};
const Words<AudioCodec> kAudioCodecs = {
    {"aac", AudioCodec::kAac}, {"amr-nb", AudioCodec::kAmrNb}, {"amr-wb", AudioCodec::kAmrWb}};
const Words<FileFormat> kFormats = {{"mp4", FileFormat::kMp4}, {"3gp", FileFormat::k3gp}};
const Words<ProgressStyle> kProgressStyles = {
    {"bar", ProgressStyle::kBar}, {"json", ProgressStyle::kJson}, {"none", ProgressStyle::kNone}};
const Words<bool> kPartialChoices = {{"keep", true}, {"discard", false}};
const Words<bool> kPresets = {{"ultrafast", true}, {"superfast", true}, {"veryfast", true},
                              {"faster", true},    {"fast", true},      {"medium", true},
                              {"slow", true},      {"slower", true},    {"veryslow", true},
                              {"placebo", true}};
const Words<bool> kLogFormats = {{"brief", true},      {"process", true}, {"tag", true},
                                 {"thread", true},     {"raw", true},     {"time", true},
                                 {"threadtime", true}, {"long", true}};

// Of names that promise another kind of file.
const Words<bool> kOtherKinds = {{".avi", true}, {".flac", true}, {".flv", true}, {".m2ts", true},
                                 {".mkv", true}, {".mov", true},  {".mp3", true}, {".mpg", true},
                                 {".ogg", true}, {".ts", true},   {".wav", true}, {".webm", true},
                                 {".wmv", true}};

// The words in a sentence: "a, b or c".
template <typename T>
std::string listOf(const Words<T>& words) {
    std::string text;
    for (size_t i = 0; i < words.size(); ++i) {
        if (i > 0) text += i + 1 == words.size() ? " or " : ", ";
        text += words[i].first;
    }
    return text;
}

// The options as they stand on the command line.
struct Texts {
    std::vector<std::string> periods;
    std::string size, frameRate, videoBitrate, videoCodec;
    std::string audioBitrate, audioRate, audioChannels, audioCodec;
    std::string format, threads, progress, partial;
};

// Turns the texts into options; the first one that cannot be taken is the failure.
class Reader {
public:
    Reader(const Texts& texts, Options* options) : mTexts(texts), mOptions(options) {}

    const std::optional<Failure>& read() {
        readVideo();
        readAudio();
        readWord("--format", mTexts.format, kFormats, &mOptions->format);
        if (mTexts.format.empty()) readName();
        readPeriods();
        readNumber("--threads", mTexts.threads, 1, kMaxThreads, &mOptions->threads);
        readProgress();
        std::optional<bool> keepPartial;
        readWord("--partial", mTexts.partial, kPartialChoices, &keepPartial);
        mOptions->keepPartial = keepPartial.value_or(true);
        std::optional<bool> known;
        readWord("--preset", mOptions->preset, kPresets, &known);
        readWord("--log-format", mOptions->logFormat, kLogFormats, &known);
        checkLogFilter();
        checkCombinations();
        return mFailure;
    }

private:
    void refuse(const std::string& subject, const std::string& reason) {
        if (!mFailure) mFailure = Failure{kExitUsage, subject, reason};
    }

    template <typename T>
    void readWord(const std::string& option, const std::string& text, const Words<T>& words,
                  std::optional<T>* value) {
        if (text.empty()) return;
        for (const auto& [word, meaning] : words) {
            if (text == word) {
                *value = meaning;
                return;
            }
        }
        refuse(option + " " + text, "expected " + listOf(words));
    }

    void readNumber(const std::string& option, const std::string& text, int32_t least, int32_t most,
                    std::optional<int32_t>* value) {
        if (text.empty()) return;
        int32_t number = 0;
        if (parseNumber(text, least, most, &number)) {
            *value = number;
        } else {
            refuse(option + " " + text, "expected a whole number from " + std::to_string(least) +
                                            " to " + std::to_string(most));
        }
    }

    void readBitrate(const std::string& option, const std::string& text,
                     std::optional<int32_t>* value) {
        if (text.empty()) return;
        int32_t bitrate = 0;
        // Below this nothing is left of a picture or a sound; more likely, the unit was forgotten.
        constexpr int32_t kLowestBitrate = 1000;
        if (parseBitrate(text, &bitrate) && bitrate >= kLowestBitrate) {
            *value = bitrate;
        } else {
            refuse(option + " " + text,
                   "expected bits a second from 1k to 2147M, such as 128k or 4M");
        }
    }

    void readSize() {
        if (mTexts.size.empty()) return;
        const std::string subject = "--size " + mTexts.size;
        Size size{};
        if (!parseSize(mTexts.size, &size)) {
            refuse(subject, "expected WIDTHxHEIGHT, such as 1280x720");
            return;
        }
        if (size.width < kSmallestSide || size.height < kSmallestSide || size.width > kMaxSide ||
            size.height > kMaxSide) {
            refuse(subject, "width and height have to be from 2 to " + std::to_string(kMaxSide));
            return;
        }
        // The output is read again.
        if (int64_t{size.width} * size.height > kMaxPixels) {
            refuse(subject, "a frame has at most " + std::to_string(kMaxPixels) + " pixels");
            return;
        }
        if (size.width % 2 != 0 || size.height % 2 != 0) {
            refuse(subject, "width and height have to be even; " + std::to_string(size.width & ~1) +
                                "x" + std::to_string(size.height & ~1) + " would work");
            return;
        }
        mOptions->size = size;
    }

    void readVideo() {
        readSize();
        readNumber("--fps", mTexts.frameRate, 1, 240, &mOptions->frameRate);
        readBitrate("--video-bitrate", mTexts.videoBitrate, &mOptions->videoBitrate);
        if (mTexts.videoCodec == "vp8") {
            refuse("--video-codec vp8", "VP8 has no place in an MP4 or 3GP file; avc would work");
            return;
        }
        readWord("--video-codec", mTexts.videoCodec, kVideoCodecs, &mOptions->videoCodec);
    }

    void readAudio() {
        readBitrate("--audio-bitrate", mTexts.audioBitrate, &mOptions->audioBitrate);
        readNumber("--audio-rate", mTexts.audioRate, 7350, 96000, &mOptions->audioRate);
        readNumber("--audio-channels", mTexts.audioChannels, 1, kMostAacChannels,
                   &mOptions->audioChannels);
        readWord("--audio-codec", mTexts.audioCodec, kAudioCodecs, &mOptions->audioCodec);
    }

    // A name says what is in the file.
    void readName() {
        std::string extension = std::filesystem::path(mOptions->output).extension();
        for (char& c : extension) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        if (extension == ".3gp") mOptions->format = FileFormat::k3gp;
        for (const auto& [other, unused] : kOtherKinds) {
            if (extension != other) continue;
            refuse(mOptions->output,
                   "only MP4 and 3GP files are made; --format mp4 would give this name to one");
        }
    }

    void readPeriods() {
        for (const std::string& text : mTexts.periods) {
            const std::string subject = "--trim " + text;
            TrimPeriod period{};
            if (!parsePeriod(text, &period)) {
                refuse(subject, "expected START-END, such as 0-2.5 or 1:30-1:45");
                return;
            }
            if (period.mEndUs <= period.mStartUs) {
                refuse(subject, "the end has to lie after the start");
                return;
            }
            if (!mOptions->periods.empty() && period.mStartUs < mOptions->periods.back().mEndUs) {
                refuse(subject, "periods have to follow one another in time, without overlap");
                return;
            }
            mOptions->periods.push_back(period);
        }
    }

    void readProgress() {
        std::optional<ProgressStyle> style;
        readWord("--progress", mTexts.progress, kProgressStyles, &style);
        const bool onTerminal = isatty(STDERR_FILENO) == 1;
        mOptions->progress =
            style.value_or(onTerminal ? ProgressStyle::kBar : ProgressStyle::kNone);
    }

    void checkLogFilter() {
        if (!mOptions->logFilter) return;
        AndroidLogFormat* format = android_log_format_new();
        if (android_log_addFilterString(format, mOptions->logFilter->c_str()) != 0) {
            refuse("--log " + *mOptions->logFilter,
                   "expected TAG:PRIORITY words, such as 'Transcode:V *:S'");
        }
        android_log_format_free(format);
    }

    void checkCombinations() {
        checkSize();
        if (mOptions->audioCodec.value_or(AudioCodec::kAac) == AudioCodec::kAac) {
            checkAac();
        } else {
            checkAmr();
        }
        checkFormat();
    }

    void checkSize() {
        if (!mOptions->videoCodec || !mOptions->size) return;
        // Which way round it has to be depends on the input's rotation.
        const Size turned{mOptions->size->height, mOptions->size->width};
        if (hasSize(*mOptions->videoCodec, *mOptions->size)) return;
        if (hasSize(*mOptions->videoCodec, turned)) return;
        refuse("--size " + mTexts.size, sizesOf(*mOptions->videoCodec));
    }

    void checkAac() {
        if (!mOptions->audioRate) return;
        const int32_t nearest = aacSampleRate(*mOptions->audioRate);
        if (nearest != *mOptions->audioRate) {
            refuse("--audio-rate " + mTexts.audioRate,
                   "AAC does not have this rate; " + std::to_string(nearest) + " would work");
        }
    }

    void checkAmr() {
        const int32_t rate = amrSampleRate(*mOptions->audioCodec);
        const std::string format =
            mTexts.audioCodec + " has only " + std::to_string(rate) + " Hz and one channel";
        if (mOptions->audioRate.value_or(rate) != rate) {
            refuse("--audio-rate " + mTexts.audioRate, format);
        }
        if (mOptions->audioChannels.value_or(1) != 1) {
            refuse("--audio-channels " + mTexts.audioChannels, format);
        }
    }

    void checkFormat() {
        if (mOptions->format != FileFormat::kMp4) return;
        const char* const advice = " has no place in an MP4 file; --format 3gp would work";
        if (mOptions->videoCodec == VideoCodec::kH263) {
            refuse("--format mp4", std::string("H.263") + advice);
        }
        if (mOptions->audioCodec.value_or(AudioCodec::kAac) != AudioCodec::kAac) {
            refuse("--format mp4", std::string("AMR") + advice);
        }
    }

    const Texts& mTexts;
    Options* const mOptions;
    std::optional<Failure> mFailure;
};

void declare(CLI::App* app, Texts* texts, Options* options) {
    app->set_help_flag("--help");
    app->set_version_flag("--version", "qmtranscode " QMTRANSCODE_VERSION);
    app->formatter_fn(
        [](const CLI::App*, const std::string&, CLI::AppFormatMode) { return std::string(kHelp); });

    // That one is missing is said below, after an option that does not exist.
    app->add_option("INPUT", options->input);
    app->add_option("OUTPUT", options->output);
    app->add_flag("--overwrite", options->overwrite);
    app->add_option("--trim", texts->periods)->type_size(1)->allow_extra_args(false);

    app->add_option("--size", texts->size);
    app->add_option("--fps", texts->frameRate);
    app->add_option("--video-bitrate", texts->videoBitrate);
    app->add_option("--video-codec", texts->videoCodec);

    app->add_option("--audio-bitrate", texts->audioBitrate);
    app->add_option("--audio-rate", texts->audioRate);
    app->add_option("--audio-channels", texts->audioChannels);
    app->add_option("--audio-codec", texts->audioCodec);

    app->add_option("--format", texts->format);
    app->add_flag("--faststart", options->fastStart);
    app->add_option("--preset", options->preset);
    app->add_option("--threads", texts->threads);
    app->add_option("--partial", texts->partial);

    app->add_flag("--plan", options->plan);
    app->add_flag("--json", options->json);
    app->add_option("--progress", texts->progress);
    app->add_option("--trace", options->trace);
    app->add_option("--log", options->logFilter);
    app->add_option("--log-format", options->logFormat);

    // An empty text would count as an option that was not given.
    const CLI::Validator notEmpty(
        [](std::string& text) {
            return text.empty() ? std::string("a value has to be given") : std::string();
        },
        "");
    for (CLI::Option* option : app->get_options()) {
        if (option->get_items_expected_max() > 0) option->check(notEmpty);
    }
}

// How many letters have to be put in, left out or changed to make one word of the other.
size_t distance(const std::string& from, const std::string& to) {
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (size_t i = 0; i < from.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i + 1;
        for (size_t j = 0; j < to.size(); ++j) {
            const size_t changed = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

// What is wrong with words that no option and no file takes.
Failure unknownWord(const CLI::App& app) {
    std::vector<std::string> words = app.remaining();
    // What only says that names follow is no word too many.
    words.erase(std::remove(words.begin(), words.end(), "--"), words.end());
    const auto option = std::find_if(words.begin(), words.end(),
                                     [](const std::string& word) { return word[0] == '-'; });
    if (option == words.end()) {
        return {kExitUsage, words.empty() ? "--" : words.front(),
                "INPUT and OUTPUT are there already; one run makes one file"};
    }
    const std::string name = option->substr(0, option->find('='));
    std::string nearest;
    for (const CLI::Option* known : app.get_options()) {
        if (known->get_lnames().empty()) continue;
        const std::string other = "--" + known->get_lnames().front();
        if (nearest.empty() || distance(name, other) < distance(name, nearest)) nearest = other;
    }
    constexpr size_t kSlip = 2;
    const bool meant = name.size() > 2 * kSlip && distance(name, nearest) <= kSlip;
    return {kExitUsage, name,
            "no such option; " +
                (meant ? "did you mean " + nearest + "?" : std::string("see qmtranscode --help"))};
}

std::string oneLine(std::string text) {
    while (!text.empty() && text.back() == '\n') text.pop_back();
    for (char& c : text) {
        if (c == '\n') c = ' ';
    }
    return text;
}

}  // namespace

bool Options::namesOutputFormat() const {
    return size || frameRate || videoBitrate || videoCodec || audioBitrate || audioRate ||
           audioChannels || audioCodec || format;
}

std::vector<int64_t> Options::cutTimesUs() const {
    std::vector<int64_t> timesUs;
    for (const TrimPeriod& period : periods) {
        timesUs.insert(timesUs.end(), {period.mStartUs, period.mEndUs});
    }
    return timesUs;
}

std::optional<int> parseOptions(int argc, char** argv, Options* options) {
    CLI::App app;
    Texts texts;
    declare(&app, &texts, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& success) {
        std::ostringstream text;
        const int status = app.exit(success, text, text);
        if (console::printOutput(text.str()) == 0) return status;
        console::printFailure({kExitFailed, "standard output", strerror(errno)});
        return kExitFailed;
    } catch (const CLI::ExtrasError&) {
        console::printFailure(unknownWord(app));
        return kExitUsage;
    } catch (const CLI::ArgumentMismatch& error) {
        // It begins with the option's name.
        const std::string text = error.what();
        console::printFailure({kExitUsage, text.substr(0, text.find(':')), "its value is missing"});
        return kExitUsage;
    } catch (const CLI::Error& error) {
        console::printFailure(
            {kExitUsage, "", oneLine(error.what()) + " (see qmtranscode --help)"});
        return kExitUsage;
    }
    if (options->output.empty()) {
        const bool both = options->input.empty();
        console::printFailure({kExitUsage, "",
                               std::string(both ? "INPUT and OUTPUT are" : "OUTPUT is") +
                                   " missing (see qmtranscode --help)"});
        return kExitUsage;
    }
    Reader reader(texts, options);
    if (const std::optional<Failure>& failure = reader.read()) {
        console::printFailure(*failure);
        return failure->status;
    }
    return std::nullopt;
}

}  // namespace android::qmmediaeditor::cli
