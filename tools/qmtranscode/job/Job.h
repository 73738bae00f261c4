// One run of the command in the worker, from checked options to an exit status.
#pragma once

#include <Platform.h>
#include <host/Host.h>
#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/cli/Options.h>
#include <qmtranscode/job/Comparison.h>
#include <qmtranscode/job/JobFiles.h>
#include <qmtranscode/job/Loudness.h>
#include <qmtranscode/job/Request.h>
#include <qmtranscode/job/RunControl.h>
#include <qmtranscode/job/Section.h>
#include <qmtranscode/job/SizeLimit.h>
#include <qmtranscode/monitor/RunMonitor.h>
#include <qmtranscode/monitor/TraceFile.h>
#include <qmtranscode/report/Progress.h>
#include <qmtranscode/report/Receipt.h>
#include <utils/StrongPointer.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

// The values of the options, without those that follow from the input.
HostOptions hostOptions(const Options& options, int threads);

// How a job ends. The receipt or the plan is written by then.
struct Outcome {
    // Nothing when the output is complete.
    std::optional<Failure> failure;
    // The output is to get its name: it is complete, or valid up to the time of a stop.
    bool keepOutput = false;
    int traceError = 0;  // errno of the first failed write of the trace
    Ending ending = Ending::kTranscoded;
};

class Job {
public:
    // All pointers outlive the job. The log must go to `monitor`; without one, which is null then,
    // there are no plan and no trace. `host` is what the options give; the job adds its observer
    // and what follows from the input.
    Job(const Options& options, const HostOptions& host, JobFiles* files, TraceFile* trace,
        RunControl* control, RunMonitor* monitor, RunObserver* observer)
        : mOptions(options),
          mHost(host),
          mInput(files->input),
          mOutput(files->outputOf(options)),
          mExisting(files->existing),
          mTrace(trace),
          mReceipt(files->receipt),
          mImages(files->images),
          mControl(control),
          mMonitor(monitor),
          mObserver(observer) {}

    Outcome run();

private:
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

    void makePlatform();
    // Refuses what can be refused before anything is written.
    std::optional<Failure> prepare();
    // For Options::part: chooses it, and tells the parent process how many there are.
    std::optional<Failure> choosePart();
    // Restricts the request to one part of the output.
    std::optional<Failure> prepareSection();
    // The text that is equal for the parts of one output.
    std::string requestText() const;
    PartDescription describePart(bool isComplete) const;
    // Adds the part's description to the output, and sets the size that the file has then.
    std::optional<Failure> finishPart(bool isComplete, int64_t* sizeBytes) const;
    // For a part that gets no sample.
    Outcome concludeEmptyPart();
    // Refuses when nothing is left of the tracks that the options choose.
    std::optional<Failure> checkChosenTracks() const;
    // Sets the gains for --volume and --loudness; for the latter, decodes the audio.
    std::optional<Failure> setGains();
    std::optional<Failure> measureLoudness();
    // Writes the plan.
    std::optional<Failure> plan();
    void showProgress(int32_t percent, Progress* progress);
    // For --if-missing and --if-needed: how the run ends without encoding; nothing if it is needed.
    std::optional<Outcome> endEarly();
    Outcome copyInput();
    // Repeats the run with lower rates while the output is larger than --max-bytes allows.
    int32_t transcodeToFit(Progress* progress);
    // Sets the bit rates for --max-bytes.
    std::optional<Failure> setSizeLimit();
    std::optional<Failure> applyRates();
    // Writes the receipt of a file that was not encoded; `more` are members of the JSON object.
    std::optional<Failure> reportFile(int fd, const char* what, const Json& more) const;
    // Runs the session. The result is its code.
    int32_t transcode(Progress* progress);
    // From the session's code to the receipt.
    Outcome conclude(int32_t result, Progress* progress);
    Outcome concludeComplete(Progress* progress);
    Outcome concludeStopped();
    // For --verify and --min-ssim.
    std::optional<Failure> verifyEncoding(Receipt* receipt) const;
    Failure failureOf(int32_t result) const;
    // Why the output has no samples.
    Failure noSamples() const;
    // A failure if a track could not be decoded at all; a line if the input has no samples of it.
    std::optional<Failure> checkTracks(const OutputContents& output) const;
    // Prints a warning when interlaced frames could not be deinterlaced.
    void printInterlaced() const;
    // Prints that the output has no track of this type.
    void printMissing(const char* type, const char* reason) const;
    // Makes the images of --poster and --contact-sheet.
    std::optional<Failure> makeImages() const;
    Receipt makeReceipt() const;
    std::optional<Failure> writeReceipt(const Receipt& receipt) const;
    std::optional<Failure> writeReceipt(const std::string& text) const;

    // Values that the options leave open, such as the rates for --max-bytes, are added.
    Options mOptions;
    HostOptions mHost;
    std::shared_ptr<Platform> mPlatform;
    // Of the thread of run().
    std::optional<Platform::Scope> mScope;
    JobInput& mInput;
    const PendingFile& mOutput;
    const int mExisting;  // as JobFiles::existing
    TraceFile* const mTrace;
    const int mReceipt;
    const int mImages;  // as JobFiles::images
    RunControl* const mControl;
    RunMonitor* const mMonitor;
    RunObserver* const mObserver;

    KeptPeriods mKept;
    Progress::Span mSpan;
    // The actual periods of these.
    std::vector<TrimPeriod> mPeriods;
    sp<AMessage> mOutputFormat;
    SectionPlan mSection;
    std::string mRequest;  // requestText(), before it was restricted to a section
    RunStatistics mStatistics;
    // Before and after the gains of --loudness, in LUFS.
    std::optional<double> mInputLoudness;
    std::optional<double> mLoudness;
    // Why the input is encoded although --if-missing or --if-needed is given.
    Differences mBecause;
    std::optional<SizeLimit> mSizeLimit;
    int mRuns = 0;
    double mWallSeconds = 0;
};

}  // namespace android::qmmediaeditor::cli
