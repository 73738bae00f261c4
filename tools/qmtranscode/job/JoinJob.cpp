#include <errno.h>
#include <fmt/format.h>
#include <host/writer/PartJoiner.h>
#include <qmtranscode/job/JoinJob.h>
#include <qmtranscode/job/OutputVerifier.h>
#include <qmtranscode/monitor/Timer.h>
#include <qmtranscode/report/Format.h>
#include <qmtranscode/report/Progress.h>
#include <string.h>

#include <algorithm>

namespace android::qmmediaeditor::cli {

namespace {

// The progress of the sections, in percent of all of it: joining is fast.
constexpr int32_t kSectionsShare = 98;

}  // namespace

Outcome JoinJob::run() {
    const int64_t startUs = nowUs();
    HostOptions host;
    host.observer = mObserver;
    host.metadata = MetadataPolicy::kAll;
    mPlatform = createHostPlatform(host);
    const Platform::Scope scope(mPlatform);
    int64_t lengthUs = 0;
    if (mOptions.jobs > 1) {
        // For the speed that is shown.
        if (const auto media = readMediaFile(mFiles.input.fd()).media) {
            const auto periods = makePeriods(mOptions, *media);
            if (const auto* kept = std::get_if<KeptPeriods>(&periods)) {
                lengthUs = outputLengthUs(*kept, *media);
            }
        }
    }
    Progress progress(mOptions.progress.value_or(ProgressStyle::kNone), mOptions.output, lengthUs,
                      {}, *mObserver);
    if (mOptions.jobs > 1) {
        const auto report = [&progress](int32_t percent) {
            progress.report(percent * kSectionsShare / 100);
        };
        if (!mControl->awaitSections(report)) {
            return {Failure{kExitFailed, "", "the parent process has ended", "no-parent"}};
        }
    }
    if (auto failure = readParts()) return {failure};
    mObserver->begin({}, nullptr);
    if (auto failure = join(&progress)) return {failure};
    mControl->report(WorkerStage::kVerifying);
    mWallSeconds = secondsOf(nowUs() - startUs);
    return conclude(&progress);
}

std::optional<Failure> JoinJob::readParts() {
    for (const auto& [path, fd] : mFiles.parts()) {
        const std::optional<PartDescription> description = readDescription(fd);
        if (!description) {
            return Failure{kExitUnusable, path,
                           "this is not a part; --join takes files that --section has written",
                           "not-a-part"};
        }
        if (description->readError != 0) {
            return systemFailure(kExitFailed, path, description->readError);
        }
        const Failure damaged{kExitUnusable, path, "the part is damaged; encode its section again",
                              "part-damaged"};
        if (!description->isIntact) return damaged;
        Part part{path, fd, *description, {}, 0};
        if (description->isVideo || description->isAudio) {
            const auto media = readMediaFile(fd).media;
            if (const auto error = mObserver->readError()) {
                return systemFailure(kExitFailed, path, error->error);
            }
            if (!media || (!media->video && !media->audio)) return damaged;
            part.media = *media;
            part.endUs = std::max<int64_t>(description->firstUs, 0) + media->durationUs();
        } else {
            part.endUs = description->startUs;
        }
        mParts.push_back(std::move(part));
    }
    std::sort(mParts.begin(), mParts.end(), [](const Part& a, const Part& b) {
        return a.description.section.index < b.description.section.index;
    });
    if (auto failure = checkSet()) return failure;
    cutAtStop();
    return std::nullopt;
}

std::optional<Failure> JoinJob::checkSet() const {
    const PartDescription& first = mParts.front().description;
    for (const Part& part : mParts) {
        const Section& section = part.description.section;
        if (section.count != first.section.count || part.description.request != first.request) {
            return Failure{kExitUnusable, part.path,
                           "this part was made from another input or with other options than " +
                               mParts.front().path,
                           "part-differs"};
        }
        if (!part.description.isComplete && mOptions.jobs == 1) {
            return Failure{
                kExitUnusable, part.path,
                fmt::format("the part was stopped; encode section {} again", section.index),
                "part-stopped"};
        }
    }
    for (int32_t i = 0; i <= first.section.count; ++i) {
        const auto count = std::count_if(mParts.begin(), mParts.end(), [i](const Part& part) {
            return part.description.section.index == i;
        });
        if (count == 1) continue;
        return Failure{kExitUnusable, mOptions.output,
                       fmt::format("section {} of {} is {}", i, first.section.count,
                                   count == 0 ? "missing" : "there twice"),
                       "part-missing"};
    }
    return std::nullopt;
}

void JoinJob::cutAtStop() {
    for (const Part& part : mParts) {
        if (part.description.isComplete) continue;
        mIsStopped = true;
        mUntilUs = std::min(mUntilUs, part.endUs);
    }
}

std::optional<Failure> JoinJob::join(Progress* progress) {
    JoinRequest request;
    request.fileType = mParts.front().description.fileType;
    request.fastStart = mParts.front().description.fastStart;
    request.observer = mObserver;
    int64_t lengthUs = 1;
    for (const Part& part : mParts) {
        const PartDescription& about = part.description;
        if (!about.isVideo && !about.isAudio) continue;
        lengthUs = std::max(lengthUs, part.endUs);
        if (request.metadata.fields.empty()) request.metadata = part.media.metadata;
        if (request.uuidData.empty()) request.uuidData = part.media.uuidData;
        if (about.isAudio) {
            request.audio = {part.fd, about.firstUs, INT64_MIN, mUntilUs};
            request.audioLanguage = part.media.audio->language;
        } else if (about.startUs < mUntilUs) {
            request.video.push_back({part.fd, about.firstUs, about.startUs, mUntilUs});
            request.videoLanguage = part.media.video->language;
            request.frameRate = about.frameRate;
            request.rotation = part.media.video->rotation;
        }
    }
    if (request.video.empty() && !request.audio) {
        return Failure{kExitUnusable, mParts.front().description.input,
                       "no frame and no audio is in the parts", "nothing-decoded"};
    }
    request.onProgress = [&](int64_t timeUs) {
        const int64_t percent = std::clamp<int64_t>(timeUs * 100 / lengthUs, 0, 99);
        progress->report(mOptions.jobs == 1 ? static_cast<int32_t>(percent) : kSectionsShare);
        return !mControl->stopRequested() || mOptions.jobs > 1;
    };
    const std::optional<std::string> reason = joinParts(request, mFiles.output.fd());
    if (!reason) return std::nullopt;
    if (const auto error = mObserver->writeError()) {
        return systemFailure(kExitFailed, mOptions.output, *error);
    }
    if (const auto error = mObserver->readError()) {
        return systemFailure(kExitFailed, "a part", error->error);
    }
    if (reason->empty() && mControl->stopRequested()) {
        return Failure{kExitStopped, mOptions.output, "stopped before the parts were joined",
                       kStoppedCode};
    }
    return Failure{kExitUnusable, mOptions.output,
                   reason->empty() ? "the file could not be finished" : *reason, "part-damaged"};
}

// Compares the output with the descriptions of the parts.
std::optional<Failure> JoinJob::verify(const OutputContents& contents) const {
    const auto failed = [this](const std::string& reason) {
        return Failure{kExitFailed, mOptions.output, "output verification failed: " + reason,
                       kVerificationCode};
    };
    int64_t frames = 0;
    MediaFile expected;
    for (const Part& part : mParts) {
        frames += part.description.frames;
        if (expected.metadata.fields.empty()) expected.metadata = part.media.metadata;
        if (expected.uuidData.empty()) expected.uuidData = part.media.uuidData;
        if (part.media.video) expected.video = part.media.video;
        if (part.media.audio) expected.audio = part.media.audio;
    }
    RunStatistics statistics;
    statistics.framesDue = mIsStopped ? static_cast<int64_t>(mObserver->framesUs().size()) : frames;
    const OutputVerifier verifier(expected, statistics, *mObserver, MetadataPolicy::kAll);
    const auto reason = verifier.verify(contents);
    return reason ? std::optional<Failure>(failed(*reason)) : std::nullopt;
}

Outcome JoinJob::conclude(Progress* progress) {
    Receipt receipt = makeReceipt();
    if (!receipt.contents) {
        if (mIsStopped) {
            return {Failure{kExitStopped, mOptions.output, "stopped before anything was written",
                            kStoppedCode}};
        }
        return {Failure{kExitFailed, mOptions.output,
                        "output verification failed: the file cannot be read", kVerificationCode}};
    }
    if (auto failure = verify(*receipt.contents)) return {failure};
    receipt.isComplete = !mIsStopped;
    if (receipt.isComplete) progress->finish();
    const std::string text = mOptions.json ? toJson(receipt) : toText(receipt);
    if (writeAll(mFiles.receipt, text) != 0) {
        return {systemFailure(kExitFailed, "the receipt", errno)};
    }
    if (!mIsStopped) return {std::nullopt, true};
    return {
        Failure{kExitStopped, mOptions.output,
                "stopped; the file is valid up to " + secondsText(receipt.contents->commonEndUs()),
                kStoppedCode},
        true};
}

Receipt JoinJob::makeReceipt() const {
    Receipt receipt;
    receipt.input = mOptions.jobs > 1 ? mOptions.input : mParts.front().description.input;
    receipt.output = mOptions.output;
    receipt.sections = mParts.front().description.section.count;
    // The descriptions of the parts have no periods.
    receipt.statistics.periods.clear();
    receipt.wallSeconds = mWallSeconds;
    for (const Part& part : mParts) {
        const PartDescription& about = part.description;
        TrackCodecs* codecs = isSection(part) ? &receipt.video : &receipt.audio;
        codecs->skippedPackets += about.damagedPackets;
        codecs->interlacedFrames += about.interlacedFrames;
        codecs->deinterlacedFrames += about.deinterlacedFrames;
        if (!about.isVideo && !about.isAudio) continue;
        codecs->decoder = about.decoder;
        codecs->encoder = about.encoder;
        if (about.isVideo) {
            receipt.threads = about.threads;
            receipt.quality = about.quality;
            receipt.inputVideo = part.media.video;
            receipt.inputVideo->width = about.inputWidth;
            receipt.inputVideo->height = about.inputHeight;
        } else {
            receipt.inputAudio = part.media.audio;
            receipt.inputAudio->sampleRate = about.inputSampleRate;
            receipt.inputAudio->channels = about.inputChannels;
        }
    }
    receipt.contents = readOutput(mFiles.output.fd());
    if (receipt.contents) {
        for (const Part& part : mParts) {
            if (!part.media.video && !part.media.audio) continue;
            receipt.metadata =
                describeMetadata(part.media, MetadataPolicy::kAll, receipt.contents->media);
            break;
        }
    }
    return receipt;
}

}  // namespace android::qmmediaeditor::cli
