#include <fmt/format.h>
#include <qmtranscode/job/OutputVerifier.h>
#include <qmtranscode/report/Format.h>
#include <stdlib.h>

#include <algorithm>
#include <limits>

namespace android::qmmediaeditor::cli {

namespace {

// The file rounds timestamps to its timescale.
constexpr int64_t kRoundingUs = 1000;

}  // namespace

int64_t OutputContents::commonEndUs() const {
    int64_t endUs = std::numeric_limits<int64_t>::max();
    if (video) endUs = std::min(endUs, video->endUs);
    if (audio) endUs = std::min(endUs, audio->endUs);
    return endUs;
}

std::optional<OutputContents> readOutput(int fd) {
    const std::optional<MediaFile> media = readMediaFile(fd).media;
    if (!media || media->durationUs() == 0) return std::nullopt;
    std::vector<size_t> tracks;
    if (media->video) tracks.push_back(media->video->index);
    if (media->audio) tracks.push_back(media->audio->index);
    const auto samples = readSamples(fd, tracks);
    if (!samples) return std::nullopt;
    OutputContents contents{*media, std::nullopt, std::nullopt};
    if (media->video) contents.video = samples->front();
    if (media->audio) contents.audio = samples->back();
    return contents;
}

std::optional<std::string> OutputVerifier::verify(const OutputContents& output) const {
    if (auto reason = verifyVideo(output)) return reason;
    if (auto reason = verifyAudio(output)) return reason;
    if (mInput.uuidData != output.media.uuidData) {
        return "the uuid data differs from the input's";
    }
    return metadataFault(mInput, mPolicy, output.media);
}

std::optional<std::string> OutputVerifier::verifyVideo(const OutputContents& output) const {
    const std::vector<int64_t> encodedUs = mObserver.framesUs();
    const auto encoded = static_cast<int64_t>(encodedUs.size());
    if (encoded != mStatistics.framesDue) {
        return fmt::format("{} of {} decoded frames reached the encoder", encoded,
                           mStatistics.framesDue);
    }
    const int64_t written = output.video ? output.video->count : 0;
    if (written != encoded) {
        return fmt::format("{} of {} frames are in the file", written, encoded);
    }
    if (written == 0) return std::nullopt;
    const TrackSamples& video = *output.video;
    // The file starts with the earlier of its tracks.
    const int64_t offsetUs = video.timesUs.front() - encodedUs.front();
    for (size_t i = 0; i < encodedUs.size(); ++i) {
        const int64_t timeUs = video.timesUs[i] - offsetUs;
        if (std::llabs(timeUs - encodedUs[i]) <= kRoundingUs) continue;
        return fmt::format("frame {} has the timestamp {:.3f} s instead of {:.3f} s", i + 1,
                           secondsOf(timeUs), secondsOf(encodedUs[i]));
    }
    const std::optional<int64_t> endUs = mObserver.videoEndUs();
    if (endUs && std::llabs(video.endUs - offsetUs - *endUs) > kRoundingUs) {
        return fmt::format("the last frame ends at {:.3f} s instead of {:.3f} s",
                           secondsOf(video.endUs - offsetUs), secondsOf(*endUs));
    }
    return std::nullopt;
}

// Encoders round audio up to whole frames, and some begin with silence.
std::optional<std::string> OutputVerifier::verifyAudio(const OutputContents& output) const {
    const int64_t encodedUs = mObserver.audioUs();
    const int64_t writtenUs = output.audio ? output.audio->endUs - output.audio->firstUs : 0;
    if (encodedUs == 0 && !output.audio) return std::nullopt;
    constexpr int64_t kMaxFrameSamples = 1024;
    const int32_t sampleRate = output.media.audio ? output.media.audio->sampleRate : 0;
    const int64_t frameUs = sampleRate > 0 ? kMaxFrameSamples * 1000000 / sampleRate : int64_t{0};
    if (std::llabs(writtenUs - encodedUs) <= 3 * frameUs) return std::nullopt;
    return fmt::format("the audio lasts {} instead of {}", secondsText(writtenUs),
                       secondsText(encodedUs));
}

std::optional<std::string> metadataFault(const MediaFile& input, MetadataPolicy policy,
                                         const MediaFile& output) {
    const auto expected = selectMetadata(input.metadata, policy).fields;
    if (output.metadata.fields != expected) {
        const auto& longer =
            output.metadata.fields.size() > expected.size() ? output.metadata.fields : expected;
        const auto& other = &longer == &expected ? output.metadata.fields : expected;
        const auto differing = std::find_if(longer.begin(), longer.end(), [&](const auto& each) {
            const auto found = other.find(each.first);
            return found == other.end() || found->second != each.second;
        });
        return fmt::format("its metadata differs from the input's in: {}",
                           nameOf(differing->first));
    }
    const bool keepsLanguages = policy != MetadataPolicy::kNone;
    const auto hasLanguageOf = [keepsLanguages](const auto& written, const auto& read) {
        return !written || !read || written->language == (keepsLanguages ? read->language : "");
    };
    if (hasLanguageOf(output.video, input.video) && hasLanguageOf(output.audio, input.audio)) {
        return std::nullopt;
    }
    return "the language of a track differs from the input's";
}

}  // namespace android::qmmediaeditor::cli
