// The operations of JobInput that read the input's content, which only the worker does.
#include <errno.h>
#include <fmt/format.h>
#include <media/stagefright/MediaErrors.h>
#include <qmtranscode/job/JobFiles.h>
#include <qmtranscode/monitor/RunStatistics.h>
#include <string.h>

#include <algorithm>

namespace android::qmmediaeditor::cli {

std::optional<Failure> JobInput::probe(const RunObserver& observer) {
    const auto [media, status] = readMediaFile(mFd);
    if (auto failure = checkReads(observer)) return failure;
    if (status < 0 && status > MEDIA_ERROR_BASE) {
        return systemFailure(kExitFailed, mPath, -status);
    }
    if (!media) {
        return Failure{kExitUnusable, mPath, "not a media file, or damaged beyond reading",
                       "not-media"};
    }
    const bool isLeftOut = std::any_of(media->tracks.begin(), media->tracks.end(),
                                       [](const AnyTrack& track) { return track.isLeftOut; });
    if (!media->audio && !media->video && !isLeftOut) {
        if (media->tracks.empty()) {
            return Failure{kExitUnusable, mPath, "the file has no tracks", "no-tracks"};
        }
        return Failure{kExitUnusable, mPath, "no track of the file has a supported codec",
                       "unsupported-codec"};
    }
    mMedia = *media;
    return std::nullopt;
}

std::optional<Failure> JobInput::checkReads(const RunObserver& observer) const {
    if (const std::optional<ReadError> read = observer.readError()) {
        if (read->error == ESTALE) {
            return Failure{
                kExitFailed, mPath,
                fmt::format("the file was truncated during the run, at byte {}", read->offsetBytes),
                "input-truncated"};
        }
        Failure failure = systemFailure(kExitFailed, mPath, read->error);
        failure.reason += fmt::format(" at byte {}", read->offsetBytes);
        return failure;
    }
    if (const std::optional<std::string> reason = observer.refusal()) {
        return Failure{kExitUnusable, mPath, *reason, "exceeds-limit"};
    }
    struct stat now {};
    if (fstat(mFd, &now) != 0) return systemFailure(kExitFailed, mPath, errno);
    const bool hasGrown = now.st_size > mStatus.st_size;
    const bool isModified = now.st_mtim.tv_sec != mStatus.st_mtim.tv_sec ||
                            now.st_mtim.tv_nsec != mStatus.st_mtim.tv_nsec;
    if (now.st_size < mStatus.st_size || (isModified && !hasGrown)) {
        return Failure{kExitFailed, mPath, "the file was modified during the run",
                       "input-modified"};
    }
    return std::nullopt;
}

}  // namespace android::qmmediaeditor::cli
