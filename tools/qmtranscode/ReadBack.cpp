#include <qmtranscode/ReadBack.h>
#include <qmtranscode/Values.h>
#include <stdlib.h>

#include <algorithm>

namespace android::qmmediaeditor::cli {

namespace {

// What the periods leave of a track of this length.
int64_t keptUs(int64_t durationUs, const std::vector<TrimPeriod>& periods) {
    if (periods.empty()) return durationUs;
    int64_t sumUs = 0;
    for (const TrimPeriod& period : periods) {
        sumUs += std::max<int64_t>(0, std::min(period.mEndUs, durationUs) - period.mStartUs);
    }
    return sumUs;
}

// The ends of a track fall on whole frames, and each cut may cost one more.
bool isClose(int64_t writtenUs, int64_t expectedUs) {
    return std::llabs(writtenUs - expectedUs) <= 500000 + expectedUs / 50;
}

std::optional<Failure> checkTrack(const char* kind, const InputFile& input, size_t index,
                                  int64_t durationUs, const std::vector<TrimPeriod>& periods,
                                  std::optional<int64_t> writtenUs, const std::string& output) {
    if (writtenUs && isClose(*writtenUs, keptUs(durationUs, periods))) return std::nullopt;
    // A damaged input, or one with pauses, holds less than it tells: its samples decide.
    const std::optional<int64_t> heldUs = measureTrack(input.fd(), input.media(), index, periods);
    if (!heldUs || (writtenUs && isClose(*writtenUs, *heldUs))) return std::nullopt;
    const std::string expected = secondsText(*heldUs) + " of " + kind;
    if (!writtenUs) {
        return Failure{kExitFailed, output, expected + " are missing from what was written"};
    }
    return Failure{kExitFailed, output,
                   "what was written has " + secondsText(*writtenUs) + " instead of " + expected};
}

// What went to the encoders has come out of them. An encoder rounds sound up to whole frames, and
// some begin with silence.
std::optional<Failure> checkCounts(const RunCounts& counts, const WrittenFile& written,
                                   const std::string& output) {
    if (written.video) {
        const int64_t encoded = counts.picturesDecoded - counts.dropped();
        if (written.video->count != encoded) {
            return Failure{kExitFailed, output,
                           "what was written has " + std::to_string(written.video->count) +
                               " pictures instead of " + std::to_string(encoded)};
        }
    }
    if (written.audio) {
        constexpr int64_t kRoundingUs = 300000;
        const int64_t writtenUs = written.audio->endUs - written.audio->firstUs;
        if (std::llabs(writtenUs - counts.soundUs()) > kRoundingUs) {
            return Failure{kExitFailed, output,
                           "what was written has " + secondsText(writtenUs) +
                               " of sound instead of " + secondsText(counts.soundUs())};
        }
    }
    return std::nullopt;
}

}  // namespace

std::optional<WrittenFile> readBack(int fd) {
    const std::optional<MediaFile> media = readMediaFile(fd);
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

std::optional<Failure> checkWhole(const InputFile& input, const std::vector<TrimPeriod>& periods,
                                  const RunCounts& counts, const WrittenFile& written,
                                  const std::string& outputPath) {
    const MediaFile& media = input.media();
    if (media.video) {
        std::optional<int64_t> us;
        if (written.media.video) us = written.media.video->durationUs;
        if (auto failure = checkTrack("video", input, media.video->index, media.video->durationUs,
                                      periods, us, outputPath)) {
            return failure;
        }
    }
    if (media.audio) {
        std::optional<int64_t> us;
        if (written.media.audio) us = written.media.audio->durationUs;
        if (auto failure = checkTrack("audio", input, media.audio->index, media.audio->durationUs,
                                      periods, us, outputPath)) {
            return failure;
        }
    }
    if (media.uuidData != written.media.uuidData) {
        return Failure{kExitFailed, outputPath,
                       "what was written does not carry the input's uuid data"};
    }
    return checkCounts(counts, written, outputPath);
}

}  // namespace android::qmmediaeditor::cli
