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

// The text with a ? for each control character, so that no name can steer a terminal.
std::string printable(std::string text);

// Columns that a terminal takes for a text in UTF-8.
int columnsOf(const std::string& text);

// The text in green, unless NO_COLOR is set or the terminal has no colours.
std::string green(const std::string& text);

}  // namespace android::qmmediaeditor::cli::console
