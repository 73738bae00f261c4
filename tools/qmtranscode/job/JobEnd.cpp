// The end of a job: checks, receipt and reasons. Job.cpp has all before it.
#include <errno.h>
#include <fmt/format.h>
#include <qmtranscode/cli/Console.h>
#include <qmtranscode/job/EncodingVerifier.h>
#include <qmtranscode/job/ImageFiles.h>
#include <qmtranscode/job/ImageMaker.h>
#include <qmtranscode/job/Job.h>
#include <qmtranscode/job/OutputVerifier.h>
#include <qmtranscode/job/Session.h>
#include <qmtranscode/report/Format.h>
#include <qmtranscode/report/Progress.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace android::qmmediaeditor::cli {

std::optional<Outcome> Job::endEarly() {
    if (mExisting >= 0 && mOptions.ifMissing) {
        OutputComparison comparison = compareOutput(mOptions, mInput, mKept, mExisting);
        if (auto failure = mInput.checkReads(*mObserver)) return Outcome{failure};
        if (comparison.others.empty() && comparison.missing.empty()) {
            return Outcome{reportFile(mExisting, "already complete", Json::object()), false, 0,
                           Ending::kAlready};
        }
        if (!comparison.others.empty() && !mOptions.overwrite) {
            return Outcome{
                Failure{kExitUsage, mOutput.path(),
                        fmt::format("the file exists and is no output of this request, because {}; "
                                    "--overwrite would replace it",
                                    comparison.others.front()),
                        "output-differs"}};
        }
        mBecause = comparison.others.empty() ? comparison.missing : comparison.others;
    }
    if (!mOptions.ifNeeded) return std::nullopt;
    mBecause = whyNeeded(mOptions, mInput, mKept);
    if (auto failure = mInput.checkReads(*mObserver)) return Outcome{failure};
    return mBecause.empty() ? std::optional(copyInput()) : std::nullopt;
}

Outcome Job::copyInput() {
    mControl->report(WorkerStage::kStarting);
    if (copyFile(mInput.fd(), mOutput.fd()) != 0) {
        return {systemFailure(kExitFailed, mOutput.path(), errno)};
    }
    mControl->report(WorkerStage::kVerifying);
    if (auto failure = mInput.checkReads(*mObserver)) return {failure};
    if (auto failure = reportFile(mOutput.fd(), "a copy of the input", Json::object()))
        return {failure};
    return {std::nullopt, true, 0, Ending::kCopied};
}

Outcome Job::conclude(int32_t result, Progress* progress) {
    if (auto failure = mInput.checkReads(*mObserver)) return {failure};
    if (mOptions.section && mObserver->hasDiscontinuity()) {
        return {Failure{kExitUnusable, mInput.path(),
                        "the timestamps jump, which sections cannot follow; a run without --jobs "
                        "and --section can",
                        "sections-need-continuous-time"}};
    }
    if (result == OK) return concludeComplete(progress);
    if (result == kStopped && mControl->stopRequested()) return concludeStopped();
    return {failureOf(result)};
}

Outcome Job::concludeComplete(Progress* progress) {
    Receipt receipt = makeReceipt();
    const bool isEmpty = mObserver->framesUs().empty() && mObserver->audioUs() == 0;
    if (mOptions.section && isEmpty) return concludeEmptyPart();
    if (!receipt.contents) return {noSamples()};
    const OutputVerifier verifier(mInput.media(), mStatistics, *mObserver, mHost.metadata);
    if (auto reason = verifier.verify(*receipt.contents)) {
        return {Failure{kExitFailed, mOutput.path(), "output verification failed: " + *reason,
                        kVerificationCode}};
    }
    if (auto failure = checkTracks(*receipt.contents)) return {failure};
    if (mOptions.maxBytes && receipt.contents->media.sizeBytes > *mOptions.maxBytes) {
        return {Failure{kExitUnusable, mInput.path(),
                        fmt::format("--max-bytes {} cannot be met: at the lowest bit rate that was "
                                    "tried, the output has {} bytes; a smaller frame size (--fit) "
                                    "would help",
                                    *mOptions.maxBytes, receipt.contents->media.sizeBytes),
                        "max-bytes-not-met"}};
    }
    if (auto failure = verifyEncoding(&receipt)) return {failure};
    if (auto failure = makeImages()) return {failure};
    printInterlaced();
    receipt.isComplete = true;
    if (auto failure = finishPart(true, &receipt.contents->media.sizeBytes)) return {failure};
    progress->finish();
    if (auto failure = writeReceipt(receipt)) return {failure};
    return {std::nullopt, true};
}

Outcome Job::concludeStopped() {
    Receipt receipt = makeReceipt();
    if (mOptions.section) {
        if (!receipt.contents && ftruncate(mOutput.fd(), 0) != 0) {
            return {systemFailure(kExitFailed, mOutput.path(), errno)};
        }
        int64_t sizeBytes = 0;
        if (auto failure = finishPart(false, &sizeBytes)) return {failure};
        if (receipt.contents) receipt.contents->media.sizeBytes = sizeBytes;
    }
    if (auto failure = writeReceipt(receipt)) return {failure};
    if (!receipt.contents) {
        return {Failure{kExitStopped, mOutput.path(), "stopped before anything was written",
                        kStoppedCode}};
    }
    return {
        Failure{kExitStopped, mOutput.path(),
                "stopped; the file is valid up to " + secondsText(receipt.contents->commonEndUs()),
                kStoppedCode},
        true};
}

PartDescription Job::describePart(bool isComplete) const {
    const MediaFile& media = mInput.media();
    PartDescription part;
    part.section = *mOptions.section;
    part.request = mRequest;
    part.input = mInput.path();
    part.isComplete = isComplete;
    struct stat file {};
    const bool hasSamples = fstat(mOutput.fd(), &file) == 0 && file.st_size > 0;
    part.isVideo = hasSamples && !mObserver->framesUs().empty();
    part.isAudio = hasSamples && mObserver->audioUs() > 0;
    const TrackCodecs codecs = part.isVideo ? mObserver->video() : mObserver->audio();
    part.startUs = mSection.startUs;
    part.endUs = mSection.endUs;
    part.firstUs = mSection.encodedFromUs + mObserver->trackStartUs(part.isVideo);
    for (const int64_t timeUs : mObserver->framesUs()) {
        if (mSection.encodedFromUs + timeUs >= mSection.startUs) ++part.frames;
    }
    part.fileType = static_cast<int32_t>(outputFileFormat(mOptions));
    part.fastStart = mOptions.fastStart;
    part.decoder = codecs.decoder;
    part.encoder = codecs.encoder;
    if (media.video) {
        part.inputWidth = media.video->width;
        part.inputHeight = media.video->height;
        part.frameRate = media.video->constantRate;
        part.quality = mHost.avcQuality;
    }
    if (media.audio) {
        part.inputSampleRate = media.audio->sampleRate;
        part.inputChannels = media.audio->channels;
    }
    part.damagedPackets = codecs.skippedPackets;
    part.interlacedFrames = codecs.interlacedFrames;
    part.deinterlacedFrames = codecs.deinterlacedFrames;
    part.threads = mHost.threads;
    return part;
}

std::optional<Failure> Job::finishPart(bool isComplete, int64_t* sizeBytes) const {
    if (!mOptions.section) return std::nullopt;
    int error = writeDescription(mOutput.fd(), describePart(isComplete));
    struct stat file {};
    if (error == 0 && fstat(mOutput.fd(), &file) != 0) error = errno;
    if (error != 0) return systemFailure(kExitFailed, mOutput.path(), error);
    *sizeBytes = file.st_size;
    return std::nullopt;
}

Outcome Job::concludeEmptyPart() {
    if (ftruncate(mOutput.fd(), 0) != 0) {
        return {systemFailure(kExitFailed, mOutput.path(), errno)};
    }
    int64_t sizeBytes = 0;
    if (auto failure = finishPart(true, &sizeBytes)) return {failure};
    if (auto failure =
            reportFile(mOutput.fd(), "complete, without samples", {{"has_samples", false}}))
        return {failure};
    return {std::nullopt, true};
}

std::optional<Failure> Job::reportFile(int fd, const char* what, const Json& more) const {
    struct stat file {};
    if (fstat(fd, &file) != 0) return systemFailure(kExitFailed, mOutput.path(), errno);
    if (!mOptions.json) {
        return writeReceipt(fmt::format("{}: {}\n", console::printable(mOutput.path()), what));
    }
    Json object = {{"input", mInput.path()}, {"output", mOutput.path()}, {"bytes", file.st_size}};
    object.update(more);
    return writeReceipt(dumpJson(object));
}

std::optional<Failure> Job::verifyEncoding(Receipt* receipt) const {
    if (!mHost.checksEncoding) return std::nullopt;
    auto result = cli::verifyEncoding(mObserver->checks(), mStatistics, *receipt->contents);
    if (const auto* fault = std::get_if<std::string>(&result)) {
        return Failure{kExitFailed, mOutput.path(), "output verification failed: " + *fault,
                       kVerificationCode};
    }
    receipt->verification = std::move(std::get<Verification>(result));
    const auto& ssim = receipt->verification->whole.ssim;
    if (!mOptions.minSsim || !ssim || ssim->worst >= *mOptions.minSsim) return std::nullopt;
    return Failure{
        kExitFailed, mOutput.path(),
        fmt::format("the frame at {:.3f} s has an SSIM of {:.4f}, below --min-ssim {:g}; "
                    "more bits or a lower --quality would raise it",
                    secondsOf(ssim->worstAtUs), ssim->worst, *mOptions.minSsim),
        kBelowMinSsimCode};
}

Failure Job::failureOf(int32_t result) const {
    if (const std::optional<int> error = mObserver->writeError()) {
        return systemFailure(kExitFailed, mOutput.path(), *error);
    }
    const bool isInputs =
        result == kInvalidRequest || result == kReadError || result == kDecoderError;
    const SessionError error = errorOf(result);
    return {kExitFailed, isInputs ? mInput.path() : mOutput.path(), error.reason, error.code};
}

Failure Job::noSamples() const {
    if (!mObserver->framesUs().empty() || mObserver->audioUs() > 0) {
        return {kExitFailed, mOutput.path(), "output verification failed: the file cannot be read",
                kVerificationCode};
    }
    if (mPeriods.empty()) {
        return {kExitUnusable, mInput.path(), "no frame and no audio could be decoded",
                "nothing-decoded"};
    }
    return {kExitUnusable, mInput.path(),
            std::string("no frame and no audio starts in ") +
                (mPeriods.size() > 1 ? "these periods" : "this period"),
            "nothing-in-periods"};
}

std::optional<Failure> Job::makeImages() const {
    if (mImages < 0) return std::nullopt;
    // In the order of the output.
    std::vector<FrameSpan> spans;
    const std::vector<int64_t> framesUs = mObserver->framesUs();
    for (const PeriodStatistics& period : mStatistics.periods) {
        const auto first = std::lower_bound(framesUs.begin(), framesUs.end(), period.startUs);
        const auto end = std::lower_bound(first, framesUs.end(), period.endUs);
        spans.push_back({static_cast<size_t>(first - framesUs.begin()),
                         static_cast<size_t>(end - framesUs.begin())});
    }
    const int32_t rotation = mInput.media().video ? mInput.media().video->rotation : 0;
    const auto images = drawImages(mOutput.fd(), rotation, spans, mOptions.poster.has_value(),
                                   mOptions.contactSheet.has_value());
    if (!images) {
        return Failure{kExitFailed, mOutput.path(), "a frame of the output could not be drawn",
                       "image-failed"};
    }
    for (const std::vector<uint8_t>& jpeg : *images) {
        if (addImage(mImages, jpeg) != 0) {
            return systemFailure(kExitFailed, "memory for the images", errno);
        }
    }
    return std::nullopt;
}

void Job::printInterlaced() const {
    const TrackCodecs video = mObserver->video();
    if (!video.deinterlacingFailure) return;
    console::printWarning(fmt::format("{}: not deinterlaced, because {}", mOutput.path(),
                                      *video.deinterlacingFailure));
}

void Job::printMissing(const char* type, const char* reason) const {
    console::printWarning(
        fmt::format("{}: written without {}, because {}", mOutput.path(), type, reason));
}

std::optional<Failure> Job::checkTracks(const OutputContents& output) const {
    const bool lacksVideo = mInput.media().video && !output.video;
    const bool lacksAudio = mInput.media().audio && !output.audio;
    if (lacksVideo && mObserver->video().skippedPackets > 0) {
        return Failure{kExitUnusable, mInput.path(), "no frame of the video could be decoded",
                       "no-frame-decoded"};
    }
    if (lacksAudio && mObserver->audio().skippedPackets > 0) {
        return Failure{kExitUnusable, mInput.path(), "no packet of the audio could be decoded",
                       "no-audio-decoded"};
    }
    if (lacksVideo) {
        printMissing("video", mPeriods.empty() ? "the input's video track has no samples"
                                               : "no frame of the input starts in the periods");
    }
    if (lacksAudio) {
        printMissing("audio", mPeriods.empty() ? "the input's audio track has no samples"
                                               : "no audio of the input starts in the periods");
    }
    return std::nullopt;
}

Receipt Job::makeReceipt() const {
    Receipt receipt;
    receipt.input = mInput.path();
    receipt.output = mOutput.path();
    receipt.asked = mKept.asked;
    receipt.names = mKept.names;
    receipt.inputVideo = mInput.media().video;
    receipt.inputAudio = mInput.media().audio;
    if (!mInput.media().isDurationEstimated) receipt.inputUs = mInput.media().durationUs();
    receipt.quality = mHost.avcQuality;
    receipt.inputLoudness = mInputLoudness;
    receipt.loudness = mLoudness;
    receipt.because = mBecause;
    if (mOptions.maxBytes) receipt.runs = mRuns;
    receipt.statistics = mStatistics;
    receipt.video = mObserver->video();
    receipt.audio = mObserver->audio();
    receipt.threads = mHost.threads;
    receipt.wallSeconds = mWallSeconds;
    receipt.contents = readOutput(mOutput.fd());
    if (receipt.contents) {
        receipt.metadata =
            describeMetadata(mInput.media(), mHost.metadata, receipt.contents->media);
    }
    return receipt;
}

std::optional<Failure> Job::writeReceipt(const Receipt& receipt) const {
    if (!receipt.contents) return std::nullopt;
    return writeReceipt(mOptions.json ? toJson(receipt) : toText(receipt));
}

std::optional<Failure> Job::writeReceipt(const std::string& text) const {
    if (writeAll(mReceipt, text) == 0) return std::nullopt;
    return systemFailure(kExitFailed, "the receipt", errno);
}

}  // namespace android::qmmediaeditor::cli
