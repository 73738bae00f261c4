// Joins the parts of an output in the worker, and verifies the result.
#pragma once

#include <Platform.h>
#include <qmtranscode/cli/Options.h>
#include <qmtranscode/job/Job.h>
#include <qmtranscode/job/JobFiles.h>
#include <qmtranscode/job/Section.h>
#include <qmtranscode/monitor/RunStatistics.h>
#include <qmtranscode/sandbox/WorkerLink.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

class Progress;

class JoinJob {
public:
    // All pointers outlive the job. With Options::jobs, the job waits until the parent has told
    // that the sections have ended.
    JoinJob(const Options& options, JobFiles* files, WorkerControl* control, RunObserver* observer)
        : mOptions(options), mFiles(*files), mControl(control), mObserver(observer) {}

    Outcome run();

private:
    struct Part {
        std::string path;
        int fd;
        PartDescription description;
        MediaFile media;    // of a part with samples
        int64_t endUs = 0;  // of its samples, in the output
    };

    JoinJob(const JoinJob&) = delete;
    JoinJob& operator=(const JoinJob&) = delete;

    // Reads all parts, and sorts them by number.
    std::optional<Failure> readParts();
    std::optional<Failure> checkSet() const;
    // Leaves out what follows the first part that was stopped.
    void cutAtStop();
    std::optional<Failure> join(Progress* progress);
    std::optional<Failure> verify(const OutputContents& contents) const;
    Receipt makeReceipt() const;
    Outcome conclude(Progress* progress);
    bool isSection(const Part& part) const { return part.description.section.index > 0; }

    const Options& mOptions;
    JobFiles& mFiles;
    WorkerControl* const mControl;
    RunObserver* const mObserver;
    std::shared_ptr<Platform> mPlatform;
    std::vector<Part> mParts;
    bool mIsStopped = false;
    int64_t mUntilUs = kEndOfInputUs;
    double mWallSeconds = 0;
};

}  // namespace android::qmmediaeditor::cli
