#include <media/stagefright/foundation/MediaDefs.h>
#include <qmtranscode/ReadBack.h>
#include <qmtranscode/Values.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

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
                                  std::optional<int64_t> writtenUs, const OutputFile& output) {
    if (writtenUs && isClose(*writtenUs, keptUs(durationUs, periods))) return std::nullopt;
    // A damaged input, or one with pauses, holds less than it tells: its samples decide.
    const std::optional<int64_t> heldUs = measureTrack(input.fd(), index, periods);
    if (!heldUs || (writtenUs && isClose(*writtenUs, *heldUs))) return std::nullopt;
    const std::string expected = secondsText(*heldUs) + " of " + kind;
    if (!writtenUs) {
        return Failure{kExitFailed, output.path(), expected + " are missing from what was written"};
    }
    return Failure{kExitFailed, output.path(),
                   "what was written has " + secondsText(*writtenUs) + " instead of " + expected};
}

std::string codecName(const std::string& mime) {
    const struct {
        const char* mime;
        const char* name;
    } kNames[] = {
        {MEDIA_MIMETYPE_VIDEO_AVC, "avc"},       {MEDIA_MIMETYPE_VIDEO_H263, "h263"},
        {MEDIA_MIMETYPE_VIDEO_MPEG4, "mpeg4"},   {MEDIA_MIMETYPE_AUDIO_AAC, "aac"},
        {MEDIA_MIMETYPE_AUDIO_AMR_NB, "amr-nb"}, {MEDIA_MIMETYPE_AUDIO_AMR_WB, "amr-wb"},
    };
    for (const auto& entry : kNames) {
        if (mime == entry.mime) return entry.name;
    }
    return mime;
}

std::string bytesText(int64_t bytes) {
    char text[32];
    if (bytes < 1000000) {
        snprintf(text, sizeof(text), "%.1f kB", static_cast<double>(bytes) / 1e3);
    } else {
        snprintf(text, sizeof(text), "%.1f MB", static_cast<double>(bytes) / 1e6);
    }
    return text;
}

}  // namespace

std::optional<MediaFile> readBack(const OutputFile& output) {
    const int fd = output.openForReading();
    if (fd < 0) return std::nullopt;
    std::optional<MediaFile> media = readMediaFile(fd);
    close(fd);
    if (media && media->durationUs() == 0) media.reset();
    return media;
}

std::optional<Failure> checkWhole(const InputFile& input, const std::vector<TrimPeriod>& periods,
                                  const MediaFile& written, const OutputFile& output) {
    const MediaFile& media = input.media();
    if (media.video) {
        std::optional<int64_t> us;
        if (written.video) us = written.video->durationUs;
        if (auto failure = checkTrack("video", input, media.video->index, media.video->durationUs,
                                      periods, us, output)) {
            return failure;
        }
    }
    if (media.audio) {
        std::optional<int64_t> us;
        if (written.audio) us = written.audio->durationUs;
        return checkTrack("audio", input, media.audio->index, media.audio->durationUs, periods, us,
                          output);
    }
    return std::nullopt;
}

std::string describe(const MediaFile& media) {
    std::string text;
    if (media.video) {
        text += codecName(media.video->mime) + " " + std::to_string(media.video->width) + "x" +
                std::to_string(media.video->height) + " " + std::to_string(media.video->frameRate) +
                " fps, ";
    }
    if (media.audio) {
        text += codecName(media.audio->mime) + " " + std::to_string(media.audio->sampleRate) +
                " Hz " + std::to_string(media.audio->channels) +
                (media.audio->channels == 1 ? " channel, " : " channels, ");
    }
    return text + secondsText(media.durationUs()) + ", " + bytesText(media.sizeBytes);
}

}  // namespace android::qmmediaeditor::cli
