// Why a command ends without a complete output, and the exit status for it. Also the operations on
// descriptors whose errors are easily lost.
#pragma once

#include <string>
#include <variant>

namespace android::qmmediaeditor::cli {

enum ExitStatus : int {
    kExitComplete = 0,
    kExitFailed = 1,
    kExitUsage = 2,
    // The input, or the request for this input, can never work.
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
    // For programs; it stays the same from version to version. A system error has its POSIX name,
    // such as "ENOSPC"; the others are words with hyphens.
    std::string code;

    // "<subject>: <reason>", or the reason alone.
    std::string text() const;
};

// Codes that several places use.
constexpr const char* kMemoryCode = "ENOMEM";
constexpr const char* kThreadCode = "no-thread";
constexpr const char* kStoppedCode = "stopped";
constexpr const char* kBelowMinSsimCode = "below-min-ssim";
constexpr const char* kVerificationCode = "verification-failed";

// The result of an operation, or the reason why there is none.
template <typename T>
using Result = std::variant<T, Failure>;

// For a system call that failed with this errno.
Failure systemFailure(ExitStatus status, const std::string& subject, int error);

// The status for a system call that failed with this errno: kExitFailed where another try may
// succeed (I/O errors and exhausted resources), else kExitUnusable.
ExitStatus exitStatusOf(int error);

// Writes all of the text. Returns -1 with errno on error.
int writeAll(int fd, const std::string& text);

// Closes a duplicate of `fd`, because some file systems report a failed write only at close.
// Returns -1 with errno on error.
int checkByClosing(int fd);

}  // namespace android::qmmediaeditor::cli
