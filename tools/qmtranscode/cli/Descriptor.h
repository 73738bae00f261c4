// Operations on descriptors whose errors are easily lost.
#pragma once

#include <string>

namespace android::qmmediaeditor::cli {

// Writes all of the text. Returns -1 with errno on error.
int writeAll(int fd, const std::string& text);

// Closes a duplicate of `fd`, because some file systems report a failed write only at close.
// Returns -1 with errno on error.
int checkByClosing(int fd);

}  // namespace android::qmmediaeditor::cli
