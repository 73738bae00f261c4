// One run of a job, in this process or in a program of its own.
#pragma once

#include <qmtranscode/job/RunControl.h>
#include <stdint.h>

#include <functional>
#include <memory>
#include <string>

#include "bindings/c/JobRequest.h"

namespace android::qmmediaeditor::api {

// The object that the command prints for a run, and what qmt_job_run() returns of it.
struct JobEnd {
    int status = cli::kExitComplete;
    std::string code;  // empty without an error
    std::string text;
    std::string receipt;
};

// The end of a run that has written nothing. `stage` as in the object.
JobEnd failedEnd(const cli::Failure& failure, const char* stage, const cli::Options& options);

// run() once, on one thread; cancel() on any, at any time.
class JobRun {
public:
    virtual ~JobRun() = default;

    // `onProgress` may be empty; calls do not overlap.
    virtual JobEnd run(const JobRequest& request, std::function<void(int32_t)> onProgress) = 0;
    virtual void cancel() = 0;
};

std::unique_ptr<JobRun> createLocalRun();
std::unique_ptr<JobRun> createIsolatedRun();

}  // namespace android::qmmediaeditor::api
