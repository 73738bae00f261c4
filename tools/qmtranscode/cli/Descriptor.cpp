#include <errno.h>
#include <fcntl.h>
#include <qmtranscode/cli/Descriptor.h>
#include <unistd.h>

namespace android::qmmediaeditor::cli {

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
