#include <errno.h>
#include <fcntl.h>
#include <qmtranscode/cli/Failure.h>
#include <string.h>
#include <unistd.h>

namespace android::qmmediaeditor::cli {

std::string Failure::text() const { return subject.empty() ? reason : subject + ": " + reason; }

Failure systemFailure(ExitStatus status, const std::string& subject, int error) {
    const char* const name = strerrorname_np(error);
    return {status, subject, strerror(error), name == nullptr ? "unknown-error" : name};
}

ExitStatus exitStatusOf(int error) {
    switch (error) {
        case EACCES:
        case EISDIR:
        case ELOOP:
        case ENAMETOOLONG:
        case ENODEV:
        case ENOENT:
        case ENOTDIR:
        case ENXIO:
        case EPERM:
            return kExitUnusable;
        default:
            return kExitFailed;
    }
}

int writeAll(int fd, const std::string& text) {
    for (size_t at = 0; at < text.size();) {
        const ssize_t written = TEMP_FAILURE_RETRY(write(fd, &text[at], text.size() - at));
        if (written < 0) return -1;
        at += static_cast<size_t>(written);
    }
    return 0;
}

int checkByClosing(int fd) {
    const int duplicate = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    return duplicate < 0 ? -1 : close(duplicate);
}

}  // namespace android::qmmediaeditor::cli
