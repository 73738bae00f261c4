#include <fmt/format.h>
#include <qmtranscode/cli/Combinations.h>
#include <qmtranscode/cli/PeriodList.h>

#include <algorithm>
#include <filesystem>
#include <utility>
#include <vector>

namespace android::qmmediaeditor::cli {

namespace {

// Names that belong to other containers.
const std::vector<std::string> kOtherExtensions = {".avi", ".flac", ".flv", ".m2ts", ".mkv",
                                                   ".mov", ".mp3",  ".mpg", ".ogg",  ".ts",
                                                   ".wav", ".webm", ".wmv"};

}  // namespace

std::optional<Failure> Combinations::check() {
    // In the order of the help.
    std::optional<Failure> failure = checkConflicts();
    if (!failure) failure = checkSections();
    if (!failure) failure = checkPeriods();
    if (!failure) failure = checkName();
    if (!failure) failure = checkSize();
    if (!failure) failure = checkAudio();
    if (!failure) failure = checkFormat();
    return failure;
}

std::optional<Failure> Combinations::checkPeriods() {
    if (mOptions.split && !mOptions.list && mOptions.periods.empty() && mOptions.cuts.empty()) {
        return Failure{kExitUsage, given("--split"),
                       "there are no periods; --trim, --cut or --list gives them", "no-periods"};
    }
    for (const char* option : {"--trim", "--cut"}) {
        const std::vector<TrimPeriod>& periods =
            option == std::string("--trim") ? mOptions.periods : mOptions.cuts;
        for (size_t i = 0; i < periods.size(); ++i) {
            const std::string reason = checkOrder(periods, i);
            if (!reason.empty())
                return Failure{kExitUsage, given(option, i), reason, "bad-periods"};
        }
    }
    if (!mOptions.list) return std::nullopt;
    mOptions.keepChapters = *mOptions.list == "chapters";
    if (mOptions.keepChapters) return std::nullopt;
    Result<PeriodList> list = readPeriodList(*mOptions.list);
    if (const auto* failure = std::get_if<Failure>(&list)) return *failure;
    auto& found = std::get<PeriodList>(list);
    mOptions.periods = std::move(found.kept);
    mOptions.cuts = std::move(found.removed);
    mOptions.periodNames = std::move(found.names);
    return std::nullopt;
}

// An extension names the container.
std::optional<Failure> Combinations::checkName() {
    if (mOptions.format) return std::nullopt;
    std::string extension = std::filesystem::path(mOptions.output).extension();
    for (char& c : extension) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    if (extension == ".3gp") mOptions.format = FileFormat::k3gp;
    if (std::find(kOtherExtensions.begin(), kOtherExtensions.end(), extension) ==
        kOtherExtensions.end()) {
        return std::nullopt;
    }
    return Failure{kExitUsage, mOptions.output,
                   "only MP4 and 3GP files can be written; use the extension .mp4 or .3gp, or "
                   "keep this one with --format mp4",
                   "unsupported-container"};
}

// Two options of which one makes the other pointless.
std::optional<Failure> Combinations::checkConflicts() const {
    static const std::vector<std::pair<std::string, std::vector<std::string>>> kConflicts = {
        {"--trim", {"--cut", "--list"}},
        {"--split",
         {"OUTPUT", "--plan", "--trace", "--contact-sheet", "--jobs", "--section", "--join"}},
        {"--poster",
         {"--if-missing", "--plan", "--no-video", "--jobs", "--section", "--if-needed"}},
        {"--contact-sheet",
         {"--if-missing", "--plan", "--no-video", "--jobs", "--section", "--if-needed"}},
        {"--cut", {"--list"}},
        {"--fit", {"--size"}},
        {"--no-video",
         {"--no-audio", "--fit", "--size", "--fps", "--video-bitrate", "--quality", "--video-codec",
          "--min-ssim"}},
        {"--no-audio",
         {"--audio-track", "--audio-bitrate", "--audio-rate", "--audio-channels", "--audio-codec",
          "--volume", "--loudness"}},
        {"--volume", {"--loudness"}},
        {"--section",
         {"--jobs", "--join", "--plan", "--if-missing", "--if-needed", "--max-bytes", "--verify",
          "--min-ssim"}},
        {"--jobs",
         {"--join", "--plan", "--trace", "--if-missing", "--if-needed", "--max-bytes", "--verify",
          "--min-ssim"}},
        {"--max-bytes",
         {"--video-bitrate", "--audio-bitrate", "--quality", "--if-needed", "--no-video"}},
        {"--if-needed", {"--if-missing"}},
        {"--plan", {"--if-missing", "--if-needed"}}};
    for (const auto& [option, others] : kConflicts) {
        if (!isGiven(option)) continue;
        for (const std::string& other : others) {
            if (!isGiven(other)) continue;
            return Failure{kExitUsage, option,
                           fmt::format("cannot be combined with {}; leave one of them out", other),
                           "conflict"};
        }
    }
    if (mOptions.quality && mOptions.videoCodec.value_or(VideoCodec::kAvc) != VideoCodec::kAvc) {
        return Failure{kExitUsage, given("--quality"),
                       "only AVC has constant quality; --video-bitrate works with every codec",
                       "quality-needs-avc"};
    }
    return std::nullopt;
}

std::optional<Failure> Combinations::checkSections() const {
    static const std::vector<std::string> kOfJoin = {
        "--join", "--overwrite", "--json", "--progress", "--log", "--log-format", "--partial"};
    for (const auto& [name, option] : mByName) {
        if (!isGiven("--join") || option->count() == 0 || name[0] != '-') continue;
        if (std::find(kOfJoin.begin(), kOfJoin.end(), name) != kOfJoin.end()) continue;
        return Failure{kExitUsage, name, "cannot be combined with --join; it belongs to --section",
                       "conflict"};
    }
    const bool hasSections = mOptions.section || mOptions.jobs > 1;
    if (!hasSections || mOptions.videoCodec.value_or(VideoCodec::kAvc) == VideoCodec::kAvc) {
        return std::nullopt;
    }
    return Failure{kExitUsage, mOptions.section ? "--section" : "--jobs",
                   "sections need AVC; leave --video-codec out", "conflict"};
}

std::optional<Failure> Combinations::checkSize() const {
    if (!mOptions.videoCodec || !mOptions.size) return std::nullopt;
    // The rotation of the input decides which of the two is encoded.
    const Size rotated{mOptions.size->height, mOptions.size->width};
    if (supportsSize(*mOptions.videoCodec, *mOptions.size) ||
        supportsSize(*mOptions.videoCodec, rotated)) {
        return std::nullopt;
    }
    return Failure{kExitUsage, given("--size"), supportedSizesText(*mOptions.videoCodec),
                   "unsupported-size"};
}

std::optional<Failure> Combinations::checkAudio() const {
    const AudioCodec codec = mOptions.audioCodec.value_or(AudioCodec::kAac);
    if (codec == AudioCodec::kAac) {
        if (!mOptions.audioRate) return std::nullopt;
        const int32_t nearest = nearestAacSampleRate(*mOptions.audioRate);
        if (nearest == *mOptions.audioRate) return std::nullopt;
        return Failure{kExitUsage, given("--audio-rate"),
                       fmt::format("AAC does not support this sample rate; {} would work", nearest),
                       "unsupported-audio"};
    }
    const int32_t rate = amrSampleRate(codec);
    const std::string supported =
        fmt::format("{} supports only {} Hz and one channel",
                    codec == AudioCodec::kAmrNb ? "AMR-NB" : "AMR-WB", rate);
    if (mOptions.audioRate.value_or(rate) != rate) {
        return Failure{kExitUsage, given("--audio-rate"), supported, "unsupported-audio"};
    }
    if (mOptions.audioChannels.value_or(1) != 1) {
        return Failure{kExitUsage, given("--audio-channels"), supported, "unsupported-audio"};
    }
    return std::nullopt;
}

std::optional<Failure> Combinations::checkFormat() const {
    if (mOptions.format != FileFormat::kMp4) return std::nullopt;
    const bool isH263 = mOptions.videoCodec == VideoCodec::kH263;
    if (!isH263 && mOptions.audioCodec.value_or(AudioCodec::kAac) == AudioCodec::kAac) {
        return std::nullopt;
    }
    return Failure{kExitUsage, "--format mp4",
                   fmt::format("{} is written to 3GP files only; --format 3gp would work",
                               isH263 ? "H.263" : "AMR"),
                   "unsupported-container"};
}

}  // namespace android::qmmediaeditor::cli
