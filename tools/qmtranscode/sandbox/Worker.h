// The worker of the command's two processes: it reads and writes the contents of files. It begins
// in the executable and goes on in a library.
#pragma once

#include <qmtranscode/cli/Options.h>
#include <qmtranscode/job/JobFiles.h>
#include <qmtranscode/sandbox/Supervisor.h>
#include <qmtranscode/sandbox/WorkerLink.h>
#include <sys/types.h>

namespace android::qmmediaeditor::cli {

// In a process that was forked from `parent` while that had one thread: loads the library that has
// the rest of the worker, and runs it. The executable itself is not linked to the media libraries,
// because both processes would have to map and unmap them, and because `--help` and usage errors do
// not need them. Standard output and error of libraries go to `libraryOutput`.
[[noreturn]] void startWorker(const Options& options, JobFiles* files, const WorkerLink& link,
                              SharedState* shared, int libraryOutput, pid_t parent) noexcept;

// The one function that the worker's library exports; startWorker() calls it.
extern "C" [[noreturn]] __attribute__((visibility("default"))) void qmtranscodeRunWorker(
    const Options& options, JobFiles* files, const WorkerLink& link, SharedState* shared) noexcept;

}  // namespace android::qmmediaeditor::cli
