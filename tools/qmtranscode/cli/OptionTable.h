// What --help says.
#pragma once

namespace android::qmmediaeditor::cli {

// At most 80 columns and 50 rows.
extern const char* const kHelp;

}  // namespace android::qmmediaeditor::cli
