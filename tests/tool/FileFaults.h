// Faults in the file system calls of the code under test, which the linker redirects with --wrap.
#pragma once

#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

struct FileFaults {
    // errno of each call; 0 for no fault.
    int openUnnamed = 0;
    int linkFile = 0;
    int renameNoReplace = 0;
    int renameExchange = 0;
    // The second exchange, which undoes the first.
    int renameBack = 0;
    int syncFile = 0;
    int syncFolder = 0;
    int close = 0;
};

// Reset by each test.
extern FileFaults gFaults;
// The calls that decide what a power failure leaves, in their order.
extern std::vector<std::string> gCalls;

}  // namespace android::qmmediaeditor::cli
