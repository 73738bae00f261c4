// The one way to standard error, shared by messages, progress and the log: a bar that is being
// drawn never ends up in the middle of a message. Any thread may call any operation.
#pragma once

#include <qmtranscode/Failure.h>

#include <string>

namespace android::qmmediaeditor::cli::console {

// `text` and a line break, above the bar.
void printLine(const std::string& text);
void printFailure(const Failure& failure);

// Draws `bar` in place of the one before.
void drawBar(const std::string& bar);
void removeBar();

// Columns of the terminal, or 80.
int width();

}  // namespace android::qmmediaeditor::cli::console
