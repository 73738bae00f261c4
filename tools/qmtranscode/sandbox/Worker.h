// The worker of the command's two processes: it reads and writes the contents of files.
#pragma once

#include <qmtranscode/cli/Options.h>
#include <qmtranscode/job/JobFiles.h>
#include <qmtranscode/sandbox/Supervisor.h>
#include <qmtranscode/sandbox/WorkerLink.h>

namespace android::qmmediaeditor::cli {

// The one function that the worker's library exports; startWorker() calls it.
extern "C" [[noreturn]] __attribute__((visibility("default"))) void qmtranscodeRunWorker(
    const Options& options, JobFiles* files, const WorkerLink& link, SharedState* shared) noexcept;

}  // namespace android::qmmediaeditor::cli
