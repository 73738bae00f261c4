// The option definitions as help, and as parts of the manual page, the bash completion and the
// README.
#pragma once

#include <qmtranscode/cli/Options.h>

#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

// At most 80 columns.
std::string helpText(const std::vector<OptionText>& options);

// `text` with each @NAME@ of these replaced: OPTIONS_MAN (man macros), OPTIONS_TABLE (Markdown),
// OPTION_NAMES, OPTIONS_WITH_VALUE and OPTION_CHOICES (for the completion), VERSION.
std::string fillTemplate(std::string text, const std::vector<OptionText>& options);

}  // namespace android::qmmediaeditor::cli
