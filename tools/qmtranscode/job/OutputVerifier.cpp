#include <qmtranscode/cli/Values.h>
#include <qmtranscode/job/OutputVerifier.h>
#include <qmtranscode/report/Format.h>
#include <stdlib.h>

#include <algorithm>
#include <limits>

namespace android::qmmediaeditor::cli {

namespace {

// The file rounds timestamps to its own timescale.
constexpr int64_t kRoundingUs = 1000;

Failure wrong(const std::string& output, const std::string& reason) {
    return {kExitFailed, output, "the check of the output failed: " + reason};
}

std::optional<Failure> checkVideo(const RunCounts& counts, const RunFacts& facts,
                                  const WrittenFile& written, const std::string& output) {
    const std::vector<int64_t> takenUs = facts.framesUs();
    const auto taken = static_cast<int64_t>(takenUs.size());
    const int64_t decoded = counts.picturesDecoded - counts.dropped();
    if (taken != decoded) {
        return wrong(output, std::to_string(taken) + " of " + std::to_string(decoded) +
                                 " decoded frames reached the encoder");
    }
    const int64_t count = written.video ? written.video->count : 0;
    if (count != taken) {
        return wrong(
            output, "it has " + std::to_string(count) + " of " + std::to_string(taken) + " frames");
    }
    if (count == 0) return std::nullopt;
    const TrackSamples& video = *written.video;
    // A file begins with the earliest of its tracks.
    const int64_t shiftUs = video.timesUs.front() - takenUs.front();
    for (size_t i = 0; i < takenUs.size(); ++i) {
        const int64_t offUs = video.timesUs[i] - shiftUs - takenUs[i];
        if (std::llabs(offUs) <= kRoundingUs) continue;
        return wrong(output, "frame " + std::to_string(i + 1) + " is at " +
                                 secondsText(video.timesUs[i] - shiftUs) + " instead of " +
                                 secondsText(takenUs[i]));
    }
    const std::optional<int64_t> endUs = facts.videoEndUs();
    if (endUs && std::llabs(video.endUs - shiftUs - *endUs) > kRoundingUs) {
        return wrong(output, "its last frame ends at " + secondsText(video.endUs - shiftUs) +
                                 " instead of " + secondsText(*endUs));
    }
    return std::nullopt;
}

// Encoders round audio up to whole frames, and some begin with silence.
std::optional<Failure> checkAudio(const RunFacts& facts, const WrittenFile& written,
                                  const std::string& output) {
    const int64_t takenUs = facts.audioUs();
    const int64_t writtenUs = written.audio ? written.audio->endUs - written.audio->firstUs : 0;
    if (takenUs == 0 && !written.audio) return std::nullopt;
    constexpr int64_t kLongestFrameSamples = 1024;
    const int32_t sampleRate = written.media.audio ? written.media.audio->sampleRate : 0;
    const int64_t frameUs =
        sampleRate > 0 ? kLongestFrameSamples * 1000000 / sampleRate : int64_t{0};
    if (std::llabs(writtenUs - takenUs) <= 3 * frameUs) return std::nullopt;
    return wrong(output, "it has " + secondsText(writtenUs) + " instead of " +
                             secondsText(takenUs) + " of audio");
}

}  // namespace

std::optional<WrittenFile> readBack(int fd) {
    const std::optional<MediaFile> media = readMediaFile(fd).media;
    if (!media || media->durationUs() == 0) return std::nullopt;
    WrittenFile written{*media, std::nullopt, std::nullopt};
    std::vector<size_t> tracks;
    if (media->video) tracks.push_back(media->video->index);
    if (media->audio) tracks.push_back(media->audio->index);
    const auto samples = walkTracks(fd, tracks);
    if (!samples) return std::nullopt;
    if (media->video) written.video = samples->front();
    if (media->audio) written.audio = samples->back();
    return written;
}

std::optional<Failure> checkWhole(const InputFile& input, const RunCounts& counts,
                                  const RunFacts& facts, const WrittenFile& written,
                                  const std::string& outputPath) {
    if (auto failure = checkVideo(counts, facts, written, outputPath)) return failure;
    if (auto failure = checkAudio(facts, written, outputPath)) return failure;
    if (input.media().uuidData != written.media.uuidData) {
        return wrong(outputPath, "it lacks the input's uuid data");
    }
    return std::nullopt;
}

int64_t commonEndUs(const WrittenFile& written) {
    int64_t endUs = std::numeric_limits<int64_t>::max();
    if (written.video) endUs = std::min(endUs, written.video->endUs);
    if (written.audio) endUs = std::min(endUs, written.audio->endUs);
    return endUs;
}

}  // namespace android::qmmediaeditor::cli
