#include <errno.h>
#include <fmt/format.h>
#include <malloc.h>
#include <qmtranscode/cli/Console.h>
#include <qmtranscode/job/EncodingVerifier.h>
#include <qmtranscode/job/ImageFiles.h>
#include <qmtranscode/job/ImageMaker.h>
#include <qmtranscode/job/Job.h>
#include <qmtranscode/job/OutputVerifier.h>
#include <qmtranscode/job/Request.h>
#include <qmtranscode/job/Session.h>
#include <qmtranscode/monitor/Timer.h>
#include <qmtranscode/report/Format.h>
#include <qmtranscode/report/Plan.h>
#include <qmtranscode/report/Progress.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

namespace android::qmmediaeditor::cli {

HostOptions hostOptions(const Options& options, int threads) {
    HostOptions host;
    host.avcPreset = options.preset;
    host.deinterlace = options.deinterlace.value_or(true);
    host.checksEncoding = options.verify && !options.plan;
    host.fastStart = options.fastStart;
    host.threads = threads;
    host.metadata = options.metadataPolicy();
    return host;
}

Outcome Job::run() {
    if (auto failure = prepare()) return {failure};
    if (mOptions.plan) return {plan()};
    if (mOptions.section && !mInput.media().video && !mInput.media().audio) {
        return concludeEmptyPart();
    }
    if (auto outcome = endEarly()) return *outcome;
    Progress progress(mOptions.progress.value_or(ProgressStyle::kNone), mOptions.output,
                      outputLengthUs(mKept, mInput.media()), mSpan, *mObserver);
    const bool hasTrace = mOptions.trace.has_value();
    if (hasTrace) mTrace->begin();
    const int32_t result = transcodeToFit(&progress);
    Outcome outcome = conclude(result, &progress);
    if (hasTrace) outcome.traceError = mTrace->end();
    return outcome;
}

Outcome Job::conclude(int32_t result, Progress* progress) {
    if (auto failure = mInput.checkReads(*mObserver)) return {failure};
    if (result == OK) return concludeComplete(progress);
    if (result == kStopped && mControl->stopRequested()) return concludeStopped();
    return {failureOf(result)};
}

// A new one, because the size of the output's frames is known only after the input was read. The
// job's own extractors use it as well.
void Job::makePlatform() {
    mScope.reset();
    mPlatform = createHostPlatform(mHost, mPlatform.get());
    mScope.emplace(mPlatform);
}

std::optional<Failure> Job::prepare() {
    mHost.observer = mObserver;
    mHost.tracks = {!mOptions.noVideo, !mOptions.noAudio, mOptions.audioTrack.value_or(0)};
    makePlatform();
    if (auto failure = mInput.probe(*mObserver)) return failure;
    if (auto failure = checkChosenTracks()) return failure;
    auto periods = makePeriods(mOptions, mInput.media());
    if (const auto* failure = std::get_if<Failure>(&periods)) return *failure;
    mKept = std::get<KeptPeriods>(periods);
    if (auto failure = choosePart()) return failure;
    mPeriods = mKept.actual;
    mHost.cutTimesUs.emplace();
    for (const TrimPeriod& period : mKept.asked) {
        mHost.cutTimesUs->insert(mHost.cutTimesUs->end(), {period.mStartUs, period.mEndUs});
    }
    auto format = makeOutputFormat(mOptions, mInput.media());
    if (const auto* failure = std::get_if<Failure>(&format)) return *failure;
    mOutputFormat = std::get<sp<AMessage>>(format);
    if (const auto warning = aspectRatioWarning(mOptions, mInput.media())) {
        console::printWarning(*warning);
    }
    FrameSize size;
    if (mOutputFormat != nullptr && mOutputFormat->findInt32("video-width", &size.width) &&
        mOutputFormat->findInt32("video-height", &size.height)) {
        mHost.frameSize = size;
    }
    if (auto failure = setSizeLimit()) return failure;
    const VideoRate rate = videoRate(mOptions, mInput.media());
    mHost.avcQuality = rate.quality;
    mHost.avcMaxBitrate = rate.maxBitrate;
    if (mOptions.section) {
        if (auto failure = prepareSection()) return failure;
    }
    if (auto failure = setGains()) return failure;
    makePlatform();
    return std::nullopt;
}

std::optional<Failure> Job::prepareSection() {
    const bool isAudio = mOptions.section->index == 0;
    mRequest = sha256(requestText());
    mHost.isPart = true;
    mHost.fastStart = false;
    const auto plan = planSection(mOptions, mKept, mInput.media());
    if (const auto* failure = std::get_if<Failure>(&plan)) return *failure;
    mSection = std::get<SectionPlan>(plan);
    mHost.tracks.video = mHost.tracks.video && !isAudio && !mSection.isEmpty();
    mHost.tracks.audio = mHost.tracks.audio && isAudio;
    makePlatform();
    if (auto failure = mInput.probe(*mObserver)) return failure;
    if (isAudio || mSection.isEmpty()) return std::nullopt;
    mKept = mSection.periods;
    mPeriods = mKept.actual;
    mHost.cutTimesUs.emplace();
    for (const TrimPeriod& period : mKept.asked) {
        mHost.cutTimesUs->insert(mHost.cutTimesUs->end(), {period.mStartUs, period.mEndUs});
    }
    mHost.keyFrameUs = mSection.startUs - mSection.encodedFromUs;
    return std::nullopt;
}

std::string Job::requestText() const {
    std::string text =
        fmt::format("{} {} {} {} {} {} {} {} {} {} {}", inputFingerprint(mInput.fd()),
                    mOptions.section->count, mHost.avcPreset, mHost.avcQuality.value_or(0),
                    mHost.avcMaxBitrate.value_or(0), mHost.deinterlace, mHost.fastStart,
                    static_cast<int>(mHost.metadata), mOptions.audioTrack.value_or(0),
                    mOptions.volumeDb.value_or(0), mOptions.loudness.value_or(0));
    text += fmt::format(" {} {}", mOptions.noVideo, mOptions.noAudio);
    for (const TrimPeriod& period : mPeriods) {
        text += fmt::format(" {}-{}", period.mStartUs, period.mEndUs);
    }
    if (mOutputFormat != nullptr) text += mOutputFormat->debugString().c_str();
    return text;
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

std::optional<Failure> Job::setSizeLimit() {
    if (!mOptions.maxBytes) return std::nullopt;
    const MediaFile& media = mInput.media();
    const auto format = describeOutput(mOptions, media);
    if (const auto* failure = std::get_if<Failure>(&format)) return *failure;
    mSizeLimit.emplace(mOptions, media, outputLengthUs(mKept, media),
                       std::get<sp<AMessage>>(format));
    if (auto failure = mSizeLimit->check()) return failure;
    mHost.holdsAvcBitrate = mSizeLimit->isShort();
    return applyRates();
}

std::optional<Failure> Job::applyRates() {
    mSizeLimit->apply(&mOptions);
    const auto format = makeOutputFormat(mOptions, mInput.media());
    if (const auto* failure = std::get_if<Failure>(&format)) return *failure;
    mOutputFormat = std::get<sp<AMessage>>(format);
    return std::nullopt;
}

std::optional<Failure> Job::choosePart() {
    if (!mOptions.part) return std::nullopt;
    const size_t count = mKept.asked.size();
    mControl->reportParts(count);
    if (*mOptions.part >= count) {
        return Failure{kExitUnusable, mInput.path(), fmt::format("there are {} periods", count),
                       "no-such-period"};
    }
    mSpan.totalUs = outputLengthUs(mKept, mInput.media());
    for (size_t i = 0; i < *mOptions.part; ++i) {
        mSpan.beforeUs += outputLengthUs(partOf(mKept, i), mInput.media());
    }
    mKept = partOf(mKept, *mOptions.part);
    return std::nullopt;
}

std::optional<Failure> Job::setGains() {
    if (!mInput.media().audio) return std::nullopt;
    if (mOptions.volumeDb) {
        mHost.audioGains = {static_cast<float>(std::pow(10, *mOptions.volumeDb / 20))};
    }
    return mOptions.loudness && !mOptions.plan ? measureLoudness() : std::nullopt;
}

std::optional<Failure> Job::measureLoudness() {
    const int memory = memfd_create("qmtranscode-loudness", MFD_CLOEXEC);
    if (memory < 0) return systemFailure(kExitFailed, "memory to measure the loudness", errno);
    LoudnessObserver observer;
    HostOptions host = mHost;
    host.observer = &observer;
    host.tracks.video = false;
    host.encodesAudio = false;
    if (mMonitor != nullptr) mMonitor->begin(mPeriods, nullptr);
    int32_t result;
    {
        Session session({mInput.fd(), memory, mPeriods, mOutputFormat,
                         [this](int32_t percent) { showProgress(percent, nullptr); },
                         createHostPlatform(host)});
        mControl->onStop([&session] { session.cancel(); });
        result = session.run();
        mControl->ignoreStop();
    }
    if (mMonitor != nullptr) mMonitor->end();
    if (auto failure = mInput.checkReads(observer)) return failure;
    if (mControl->stopRequested()) {
        return Failure{kExitStopped, mOutput.path(), "stopped before anything was written",
                       kStoppedCode};
    }
    if (observer.lacksMemory()) return Failure{kExitFailed, "", "not enough memory", kMemoryCode};
    if (result != OK) return failureOf(result);
    mInputLoudness = observer.meter().integrated();
    if (mInputLoudness) {
        LoudnessMeter::Gains gains = observer.meter().gainsFor(*mOptions.loudness);
        mHost.audioGains = std::move(gains.factors);
        mLoudness = gains.loudness;
        constexpr double kToleranceLu = 0.5;
        if (std::abs(gains.loudness - *mOptions.loudness) > kToleranceLu) {
            console::printWarning(
                fmt::format("{}: --loudness {:g} cannot be reached without peaks above -1 dBTP; "
                            "the output has {:.1f} LUFS",
                            mInput.path(), *mOptions.loudness, gains.loudness));
        }
    } else {
        console::printWarning(
            mInput.path() + ": --loudness has no effect, because the audio is silent or too short");
    }
    return std::nullopt;
}

std::optional<Failure> Job::checkChosenTracks() const {
    const MediaFile& media = mInput.media();
    const auto audioTracks = std::count_if(
        media.tracks.begin(), media.tracks.end(),
        [](const AnyTrack& track) { return track.mime.compare(0, 6, "audio/") == 0; });
    if (mOptions.audioTrack && audioTracks < *mOptions.audioTrack) {
        return Failure{kExitUnusable, mInput.path(),
                       fmt::format("there is no audio track {}; the file has {}",
                                   *mOptions.audioTrack, audioTracks),
                       "no-such-track"};
    }
    if (mOptions.audioTrack && !media.audio) {
        return Failure{kExitUnusable, mInput.path(),
                       fmt::format("audio track {} has no supported codec", *mOptions.audioTrack),
                       "unsupported-codec"};
    }
    if (media.video || media.audio) return std::nullopt;
    return Failure{kExitUnusable, mInput.path(),
                   mOptions.noVideo ? "the file has no audio, and --no-video leaves the video out"
                                    : "the file has no video, and --no-audio leaves the audio out",
                   "no-track-left"};
}

std::optional<Failure> Job::plan() {
    if (mOptions.planKind == "quick") {
        const auto format = describeOutput(mOptions, mInput.media());
        if (const auto* failure = std::get_if<Failure>(&format)) return *failure;
        return writeReceipt(
            planJson(mOptions, mInput, mKept, plannedRun(std::get<sp<AMessage>>(format))));
    }
    const Result<DryRun> result = dryRun(mInput, mPeriods, mOutputFormat, mMonitor, mObserver);
    if (const auto* failure = std::get_if<Failure>(&result)) return *failure;
    return writeReceipt(planJson(mOptions, mInput, mKept, std::get<DryRun>(result)));
}

// Without a bar, the time goes into measuring.
void Job::showProgress(int32_t percent, Progress* progress) {
    if (mMonitor != nullptr) mMonitor->onProgress(percent);
    if (progress == nullptr) return;
    progress->report(percent);
    mControl->reportProgress(percent);
}

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

int32_t Job::transcodeToFit(Progress* progress) {
    int32_t result = transcode(progress);
    constexpr int kMaxRuns = 3;
    while (mSizeLimit && result == OK && mRuns < kMaxRuns) {
        struct stat file {};
        if (fstat(mOutput.fd(), &file) != 0) break;
        if (!mSizeLimit->correct(file.st_size, mObserver->position().timeUs)) break;
        applyRates();
        makePlatform();
        progress->restart();
        result = transcode(progress);
    }
    return result;
}

int32_t Job::transcode(Progress* progress) {
    ++mRuns;
    // The session closes it.
    const int outputFd = mOutput.duplicate();
    if (outputFd < 0 || ftruncate(outputFd, 0) != 0 || lseek(outputFd, 0, SEEK_SET) != 0) {
        mObserver->onWriteError(errno);
        if (outputFd >= 0) close(outputFd);
        return kSessionFailed;
    }
    const int64_t startUs = nowUs();
    if (mMonitor != nullptr) mMonitor->begin(mPeriods, mOptions.trace ? mTrace : nullptr);
    int32_t result;
    {
        Session session({mInput.fd(), outputFd, mPeriods, mOutputFormat,
                         [this, progress](int32_t percent) { showProgress(percent, progress); },
                         mPlatform});
        mControl->onStop([&session] { session.cancel(); });
        mControl->report(WorkerStage::kStarting);
        mObserver->begin(mPeriods, [this] { mControl->report(WorkerStage::kTranscoding); });
        result = session.run();
        mControl->ignoreStop();
        mControl->report(WorkerStage::kVerifying);
    }
    if (mMonitor != nullptr) mMonitor->end();
    mStatistics = mObserver->statistics();
    // Verification needs as much memory for the tables of long tracks again. For a short run,
    // giving it back takes longer than it is worth.
    constexpr int64_t kLongUs = 300000000;
    if (outputLengthUs(mKept, mInput.media()) > kLongUs) malloc_trim(0);
    mWallSeconds = secondsOf(nowUs() - startUs);
    return result;
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
