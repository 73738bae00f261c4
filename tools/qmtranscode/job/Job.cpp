#include <errno.h>
#include <fmt/format.h>
#include <malloc.h>
#include <qmtranscode/cli/Console.h>
#include <qmtranscode/job/Job.h>
#include <qmtranscode/job/Request.h>
#include <qmtranscode/job/Session.h>
#include <qmtranscode/monitor/Timer.h>
#include <qmtranscode/report/Plan.h>
#include <qmtranscode/report/Progress.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

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

// `progress` is null for a run that only measures.
void Job::showProgress(int32_t percent, Progress* progress) {
    if (mMonitor != nullptr) mMonitor->onProgress(percent);
    if (progress == nullptr) return;
    progress->report(percent);
    mControl->reportProgress(percent);
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
    // Verification needs memory for the tables of long tracks once more, so that freed memory goes
    // back to the system before. After a short run that is not worth its time.
    constexpr int64_t kLongUs = 300000000;
    if (outputLengthUs(mKept, mInput.media()) > kLongUs) malloc_trim(0);
    mWallSeconds = secondsOf(nowUs() - startUs);
    return result;
}

}  // namespace android::qmmediaeditor::cli
