// The worker of the command's two processes: it reads and writes the contents of files.
#pragma once

#include <qmtranscode/cli/Options.h>
#include <qmtranscode/job/JobFiles.h>
#include <qmtranscode/sandbox/Supervisor.h>
#include <qmtranscode/sandbox/WorkerLink.h>
#include <sys/types.h>

namespace android::qmmediaeditor::cli {

// In a process that was forked from `parent` while that had one thread. Standard output and error
// of libraries go to `libraryOutput`.
[[noreturn]] void runWorker(const Options& options, JobFiles* files, const WorkerLink& link,
                            SharedState* shared, int libraryOutput, pid_t parent) noexcept;

}  // namespace android::qmmediaeditor::cli
