#include <editorutils/MediaEditorDefs.h>
#include <media/stagefright/foundation/MediaDefs.h>
#include <qmtranscode/cli/Values.h>
#include <qmtranscode/job/MediaFile.h>
#include <qmtranscode/job/Request.h>
#include <qmtranscode/report/Format.h>
#include <qmtranscode/report/MetadataReport.h>
#include <qmtranscode/report/Plan.h>
#include <string.h>
#include <strings.h>

#include <algorithm>

namespace android::qmmediaeditor::cli {

namespace {

bool hasType(const std::string& mime, const char* type) {
    return strncasecmp(mime.c_str(), type, strlen(type)) == 0;
}

std::string whyNotUsed(const Options& options, const AnyTrack& track) {
    const std::string& mime = track.mime;
    if (track.isLeftOut) {
        if (hasType(mime, "video/")) return "left out by --no-video";
        return options.noAudio ? "left out by --no-audio" : "left out by --audio-track";
    }
    if (strcasecmp(mime.c_str(), MEDIAEDITOR_MIMETYPE_AUDIO_NOTSUPPORTED) == 0 ||
        strcasecmp(mime.c_str(), MEDIAEDITOR_MIMETYPE_VIDEO_NOTSUPPORTED) == 0) {
        return "no decoder for its codec";
    }
    if (hasType(mime, "image/")) return "cover art, not a video track";
    if (hasType(mime, "video/") || hasType(mime, "audio/"))
        return "not the first track of its type";
    return "neither video nor audio";
}

Json tracksOf(const Options& options, const MediaFile& media) {
    Json tracks = Json::array();
    for (size_t i = 0; i < media.tracks.size(); ++i) {
        const bool video = media.video && media.video->index == i;
        const bool audio = media.audio && media.audio->index == i;
        Json track = {{"index", i},
                      {"type", media.tracks[i].mime},
                      {"language", nullptr},
                      {"chosen", video || audio},
                      {"why", video                          ? "the first video track"
                              : audio && !options.audioTrack ? "the first audio track"
                              : audio                        ? "chosen by --audio-track"
                                      : whyNotUsed(options, media.tracks[i])}};
        if (!media.tracks[i].language.empty()) track["language"] = media.tracks[i].language;
        tracks.push_back(std::move(track));
    }
    return tracks;
}

// A number of the output, and where it comes from. `input` is the input's value, 0 if unknown.
// `other` is the source of a number that was not asked for and is not the input's.
Json numberOf(int64_t value, bool asked, int64_t input, const char* other = "input") {
    Json json = {{"value", value}, {"from", "asked"}};
    if (!asked) json["from"] = input <= 0 ? "default" : value == input ? "input" : other;
    if (input > 0 && value != input) json["input_has"] = input;
    return json;
}

// Where the output's codec cannot have the input's value.
constexpr const char* kNearest = "nearest";

// Not a value of the input.
template <typename T>
Json wordOf(const T& value, bool asked) {
    return {{"value", value}, {"from", asked ? "asked" : "default"}};
}

// The name of a codec, null if it is not known.
Json nameOrNull(const std::string& name) { return name.empty() ? Json() : Json(name); }

const char* mimeOf(VideoCodec codec) {
    switch (codec) {
        case VideoCodec::kH263:
            return MEDIA_MIMETYPE_VIDEO_H263;
        case VideoCodec::kMpeg4:
            return MEDIA_MIMETYPE_VIDEO_MPEG4;
        case VideoCodec::kAvc:
            break;
    }
    return MEDIA_MIMETYPE_VIDEO_AVC;
}

const char* mimeOf(AudioCodec codec) {
    switch (codec) {
        case AudioCodec::kAmrNb:
            return MEDIA_MIMETYPE_AUDIO_AMR_NB;
        case AudioCodec::kAmrWb:
            return MEDIA_MIMETYPE_AUDIO_AMR_WB;
        case AudioCodec::kAac:
            break;
    }
    return MEDIA_MIMETYPE_AUDIO_AAC;
}

// The encoder's setting, 0 without an encoder.
int64_t settingOf(const TrackCodecs& codecs, const char* key) {
    int32_t number = 0;
    float fraction = 0;
    if (codecs.format == nullptr || codecs.format->findInt32(key, &number)) return number;
    return codecs.format->findFloat(key, &fraction) ? static_cast<int64_t>(fraction) : 0;
}

std::string codecOf(const TrackCodecs& codecs) {
    AString mime;
    if (codecs.format != nullptr) codecs.format->findString("mime", &mime);
    return codecName(mime.c_str());
}

// The numbers are those of the dry run.
Json deinterlacingOf(const Options& options, const TrackCodecs& codecs) {
    Json json = wordOf(options.deinterlace.value_or(true) ? "auto" : "off",
                       options.deinterlace.has_value());
    json["interlaced_frames"] = codecs.interlacedFrames;
    json["deinterlaced_frames"] = codecs.deinterlacedFrames;
    return json;
}

Json videoOf(const Options& options, const VideoTrack& input, const TrackCodecs& codecs,
             const VideoRate& rate) {
    const auto setting = [&codecs](const char* key) { return settingOf(codecs, key); };
    const bool hasSize = options.size || options.fit;
    // Width and height are those that are encoded; --size and --fit are the size after rotation.
    Json json = {
        {"decoder", nameOrNull(codecs.decoder)},
        {"encoder", nameOrNull(codecs.encoder)},
        {"codec", wordOf(codecOf(codecs), options.videoCodec.has_value())},
        {"width", numberOf(setting("width"), hasSize, input.width, kNearest)},
        {"height", numberOf(setting("height"), hasSize, input.height, kNearest)},
        {"rotation", Json{{"value", input.rotation}, {"from", "input"}}},
        {"fps", numberOf(setting("frame-rate"), options.frameRate.has_value(), input.frameRate)}};
    json["deinterlace"] = deinterlacingOf(options, codecs);
    if (!rate.quality) {
        json["bitrate"] =
            numberOf(setting("bitrate"), options.videoBitrate.has_value(), input.bitrate);
        return json;
    }
    json["quality"] = wordOf(*rate.quality, options.quality.has_value());
    json["max_bitrate"] = nullptr;
    if (rate.maxBitrate) {
        json["max_bitrate"] =
            numberOf(*rate.maxBitrate, options.videoBitrate.has_value(), input.bitrate);
    }
    return json;
}

Json audioOf(const Options& options, const AudioTrack& input, const TrackCodecs& codecs) {
    const auto setting = [&codecs](const char* key) { return settingOf(codecs, key); };
    Json json = {
        {"decoder", nameOrNull(codecs.decoder)},
        {"encoder", nameOrNull(codecs.encoder)},
        {"codec", wordOf(codecOf(codecs), options.audioCodec.has_value())},
        {"sample_rate", numberOf(setting("sample-rate"), options.audioRate.has_value(),
                                 input.sampleRate, kNearest)},
        {"channels", numberOf(setting("channel-count"), options.audioChannels.has_value(),
                              input.channels, kNearest)},
        {"bitrate", numberOf(setting("bitrate"), options.audioBitrate.has_value(), input.bitrate)}};
    if (options.volumeDb) json["volume_db"] = *options.volumeDb;
    if (options.loudness) json["loudness"] = *options.loudness;
    return json;
}

Json periodsOf(const JobInput& input, const KeptPeriods& kept) {
    const MediaFile& media = input.media();
    std::vector<size_t> tracks;
    if (media.video) tracks.push_back(media.video->index);
    if (media.audio) tracks.push_back(media.audio->index);
    Json list = Json::array();
    int64_t startUs = 0;
    for (size_t i = 0; i < kept.actual.size(); ++i) {
        const TrimPeriod& period = kept.actual[i];
        Json entry = {{"start", secondsOf(period.mStartUs)},
                      {"end", nullptr},
                      {"in_output_at", secondsOf(startUs)},
                      {"seek_point", nullptr}};
        const std::optional<int64_t> pointUs = seekPointUs(input.fd(), tracks, period.mStartUs);
        if (period.mEndUs < kEndOfInputUs) entry["end"] = secondsOf(period.mEndUs);
        if (pointUs) entry["seek_point"] = secondsOf(*pointUs);
        const int64_t askedEndUs = kept.asked[i].mEndUs;
        if (askedEndUs != period.mEndUs && askedEndUs < kEndOfInputUs) {
            entry["asked_end"] = secondsOf(askedEndUs);
        }
        if (i < kept.names.size()) entry["name"] = kept.names[i];
        startUs += period.mEndUs - period.mStartUs;
        list.push_back(std::move(entry));
    }
    return list;
}

// Scales the results of the dry run to the length of the output.
Json estimateOf(int64_t lengthUs, const DryRun& run) {
    Json json = {{"bytes", nullptr}, {"seconds", nullptr}, {"measured_seconds", run.wallSeconds}};
    if (!run.output) return nullptr;
    const int64_t measuredUs = run.output->media.durationUs();
    if (measuredUs <= 0) return json;
    const double factor = std::max(1.0, secondsOf(lengthUs) / secondsOf(measuredUs));
    json["bytes"] = static_cast<int64_t>(static_cast<double>(run.output->media.sizeBytes) * factor);
    json["seconds"] = run.wallSeconds * factor;
    return json;
}

std::string containerName(const Options& options) {
    return outputFileFormat(options) == FileFormat::k3gp ? "3gp" : "mp4";
}

}  // namespace

DryRun plannedRun(const sp<AMessage>& format) {
    const auto number = [&format](const char* key) {
        int32_t value = 0;
        format->findInt32(key, &value);
        return value;
    };
    DryRun run;
    run.video.format = new AMessage;
    run.video.format->setString("mime", mimeOf(static_cast<VideoCodec>(number("video-encoder"))));
    run.video.format->setInt32("width", number("video-width"));
    run.video.format->setInt32("height", number("video-height"));
    run.video.format->setInt32("frame-rate", number("video-framerate"));
    run.video.format->setInt32("bitrate", number("video-bitrate"));
    run.audio.format = new AMessage;
    run.audio.format->setString("mime", mimeOf(static_cast<AudioCodec>(number("audio-encoder"))));
    run.audio.format->setInt32("sample-rate", number("audio-samplerate"));
    run.audio.format->setInt32("channel-count", number("audio-channels"));
    run.audio.format->setInt32("bitrate", number("audio-bitrate"));
    return run;
}

std::string planJson(const Options& options, const JobInput& input, const KeptPeriods& kept,
                     const DryRun& run) {
    const MediaFile& media = input.media();
    const int64_t lengthUs = outputLengthUs(kept, media);

    Json output = {{"file", options.output},
                   {"format", wordOf(containerName(options), options.format.has_value())},
                   {"length", secondsOf(lengthUs)},
                   {"video", nullptr},
                   {"audio", nullptr}};
    if (media.video)
        output["video"] = videoOf(options, *media.video, run.video, videoRate(options, media));
    if (media.audio) output["audio"] = audioOf(options, *media.audio, run.audio);
    Json json = {{"input",
                  {{"file", input.path()},
                   {"bytes", media.sizeBytes},
                   {"length", secondsOf(media.durationUs())},
                   {"tracks", tracksOf(options, media)}}},
                 {"output", std::move(output)},
                 {"periods", periodsOf(input, kept)},
                 {"metadata", toJson(describeMetadata(media, options.metadataPolicy()))},
                 {"uuid_data", nullptr},
                 {"estimate", estimateOf(lengthUs, run)}};
    if (!media.uuidData.empty()) {
        json["uuid_data"] = {{"bytes", media.uuidData.size()}, {"sha256", sha256(media.uuidData)}};
    }
    return dumpJson(json);
}

}  // namespace android::qmmediaeditor::cli
