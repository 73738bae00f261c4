// The worker of the command's two processes: everything that touches the contents of files.
#pragma once

#include <qmtranscode/cli/Options.h>
#include <qmtranscode/job/JobFiles.h>
#include <qmtranscode/sandbox/Supervisor.h>
#include <qmtranscode/sandbox/WorkerLink.h>
#include <sys/types.h>

namespace android::qmmediaeditor::cli {

// In a process of its own, forked from `parent` while that had no other thread. What libraries
// print goes to `libraryOutput`.
[[noreturn]] void runWorker(const Options& options, JobFiles* files, const Link& link,
                            SharedState* shared, int libraryOutput, pid_t parent) noexcept;

}  // namespace android::qmmediaeditor::cli
