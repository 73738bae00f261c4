#include <editorutils/MediaEditorDefs.h>
#include <qmtranscode/cli/OutputCodecs.h>
#include <qmtranscode/job/Request.h>
#include <qmtranscode/job/TrackWalk.h>
#include <qmtranscode/report/Format.h>
#include <qmtranscode/report/Plan.h>
#include <string.h>
#include <strings.h>

#include <algorithm>

namespace android::qmmediaeditor::cli {

namespace {

bool isOf(const std::string& mime, const char* kind) {
    return strncasecmp(mime.c_str(), kind, strlen(kind)) == 0;
}

std::string whyPassedOver(const std::string& mime) {
    if (strcasecmp(mime.c_str(), MEDIAEDITOR_MIMETYPE_AUDIO_NOTSUPPORTED) == 0 ||
        strcasecmp(mime.c_str(), MEDIAEDITOR_MIMETYPE_VIDEO_NOTSUPPORTED) == 0) {
        return "no decoder here takes it";
    }
    if (isOf(mime, "image/")) return "a picture of the file, not a track in time";
    if (isOf(mime, "video/") || isOf(mime, "audio/")) return "another one of its kind comes first";
    return "neither picture nor sound";
}

Json tracksOf(const MediaFile& media) {
    Json tracks = Json::array();
    for (size_t i = 0; i < media.mimes.size(); ++i) {
        const bool video = media.video && media.video->index == i;
        const bool audio = media.audio && media.audio->index == i;
        tracks.push_back({{"index", i},
                          {"type", media.mimes[i]},
                          {"chosen", video || audio},
                          {"why", video   ? "the first with pictures"
                                  : audio ? "the first with sound"
                                          : whyPassedOver(media.mimes[i])}});
    }
    return tracks;
}

// A number of the output. `input` is what the input has of it, 0 when that is not known.
template <typename T>
Json numberOf(int64_t value, const std::optional<T>& asked, int64_t input) {
    if (asked) return {{"value", value}, {"from", "asked"}};
    if (input <= 0) return {{"value", value}, {"from", "default"}};
    Json json = {{"value", value}, {"from", "input"}};
    if (value != input) json["input_has"] = input;
    return json;
}

Json wordOf(const std::string& value, bool asked) {
    return {{"value", value}, {"from", asked ? "asked" : "default"}};
}

std::string mimeIn(const std::string& format) {
    const std::string key = "mime = string \"";
    const size_t at = format.find(key);
    if (at == std::string::npos) return "";
    const size_t begin = at + key.size();
    return format.substr(begin, format.find('"', begin) - begin);
}

Json videoOf(const Options& options, const VideoTrack& input, const RunCounts& counts) {
    const std::string& format = counts.videoFormat;
    const auto number = [&format](const char* name) { return formatNumber(format, name); };
    // What is asked for is the picture as it is displayed; a turned one is stored on its side.
    return {{"decoder", counts.videoDecoder},
            {"encoder", counts.videoEncoder},
            {"codec", wordOf(codecName(mimeIn(format)), options.videoCodec.has_value())},
            {"width", numberOf(number("width"), options.size, input.width)},
            {"height", numberOf(number("height"), options.size, input.height)},
            {"rotation", Json{{"value", input.rotation}, {"from", "input"}}},
            {"fps", numberOf(number("frame-rate"), options.frameRate, input.frameRate)},
            {"bitrate", numberOf(number("bitrate"), options.videoBitrate, input.bitrate)}};
}

Json audioOf(const Options& options, const AudioTrack& input, const RunCounts& counts) {
    const std::string& format = counts.audioFormat;
    const auto number = [&format](const char* name) { return formatNumber(format, name); };
    return {{"decoder", counts.audioDecoder},
            {"encoder", counts.audioEncoder},
            {"codec", wordOf(codecName(mimeIn(format)), options.audioCodec.has_value())},
            {"sample_rate", numberOf(number("sample-rate"), options.audioRate, input.sampleRate)},
            {"channels", numberOf(number("channel-count"), options.audioChannels, input.channels)},
            {"bitrate", numberOf(number("bitrate"), options.audioBitrate, input.bitrate)}};
}

Json periodsOf(const Options& options, const InputFile& input,
               const std::vector<TrimPeriod>& periods) {
    const MediaFile& media = input.media();
    std::vector<size_t> tracks;
    if (media.video) tracks.push_back(media.video->index);
    if (media.audio) tracks.push_back(media.audio->index);
    Json list = Json::array();
    int64_t beginUs = 0;
    for (size_t i = 0; i < periods.size(); ++i) {
        const TrimPeriod& period = periods[i];
        Json entry = {{"start", secondsOf(period.mStartUs)},
                      {"end", secondsOf(period.mEndUs)},
                      {"in_output_at", secondsOf(beginUs)},
                      {"seek_point", nullptr}};
        const std::optional<int64_t> pointUs = seekPointUs(input.fd(), tracks, period.mStartUs);
        if (pointUs) entry["seek_point"] = secondsOf(*pointUs);
        if (period.mEndUs != options.periods[i].mEndUs) {
            entry["asked_end"] = secondsOf(options.periods[i].mEndUs);
        }
        beginUs += period.mEndUs - period.mStartUs;
        list.push_back(std::move(entry));
    }
    return list;
}

// Goes by what the trial has made of its share of the work.
Json estimateOf(int64_t lengthUs, const TrialResult& trial) {
    Json json = {{"bytes", nullptr}, {"seconds", nullptr}, {"measured_seconds", trial.wallSeconds}};
    if (!trial.written) return json;
    const int64_t madeUs = trial.written->media.durationUs();
    if (madeUs <= 0) return json;
    const double times = std::max(1.0, secondsOf(lengthUs) / secondsOf(madeUs));
    json["bytes"] =
        static_cast<int64_t>(static_cast<double>(trial.written->media.sizeBytes) * times);
    json["seconds"] = trial.wallSeconds * times;
    return json;
}

std::string kindOfFile(const Options& options) {
    return outputFileFormat(options) == FileFormat::k3gp ? "3gp" : "mp4";
}

}  // namespace

std::string planJson(const Options& options, const InputFile& input,
                     const std::vector<TrimPeriod>& periods, const TrialResult& trial) {
    const MediaFile& media = input.media();
    int64_t lengthUs = periods.empty() ? media.durationUs() : 0;
    for (const TrimPeriod& period : periods) lengthUs += period.mEndUs - period.mStartUs;

    Json output = {{"file", options.output},
                   {"format", wordOf(kindOfFile(options), options.format.has_value())},
                   {"length", secondsOf(lengthUs)},
                   {"video", nullptr},
                   {"audio", nullptr}};
    if (media.video) output["video"] = videoOf(options, *media.video, trial.counts);
    if (media.audio) output["audio"] = audioOf(options, *media.audio, trial.counts);
    Json json = {{"input",
                  {{"file", input.path()},
                   {"bytes", media.sizeBytes},
                   {"length", secondsOf(media.durationUs())},
                   {"tracks", tracksOf(media)}}},
                 {"output", std::move(output)},
                 {"periods", periodsOf(options, input, periods)},
                 {"uuid_data", nullptr},
                 {"estimate", estimateOf(lengthUs, trial)}};
    if (!media.uuidData.empty()) {
        json["uuid_data"] = {{"bytes", media.uuidData.size()}, {"sha256", sha256(media.uuidData)}};
    }
    return dumpJson(json);
}

}  // namespace android::qmmediaeditor::cli
