// Why a command ends without having done its work.
#pragma once

#include <string>

namespace android::qmmediaeditor::cli {

// What the shell is told.
enum ExitStatus : int {
    kExitWhole = 0,
    kExitFailed = 1,
    kExitUsage = 2,
    // The input, or the request for this input, cannot be used.
    kExitUnusable = 3,
    kExitStopped = 130,
};

// One line for the user: "qmtranscode: <subject>: <reason>".
struct Failure {
    ExitStatus status;
    // The file or the option that it is about; may be empty.
    std::string subject;
    // No full stop, no line break.
    std::string reason;
};

// The status for a system call that failed with this errno: kExitFailed where another try may
// succeed (I/O errors and exhausted resources), else kExitUnusable.
ExitStatus exitStatusOf(int error);

}  // namespace android::qmmediaeditor::cli
