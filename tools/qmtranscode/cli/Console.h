// The one way to standard output and standard error, shared by messages, progress and the log: a
// bar that is being drawn never ends up in the middle of a message, and no text steers a terminal.
// Any thread may call any operation.
#pragma once

#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/sandbox/WorkerLink.h>
#include <stddef.h>

#include <atomic>
#include <string>

namespace android::qmmediaeditor::cli::console {

// Back to the first column, and clear to the end of the line.
constexpr const char* kEraseLine = "\r\x1b[K";

// From here on everything goes to the parent process, which writes it; `columns` has the width of
// its terminal. For a worker, before it has other threads.
void useLink(const WorkerLink* link, const std::atomic<int>* columns);

// `text`, which may have several lines, and a line break, above the bar.
void printLine(const std::string& text);
// One line.
void printFailure(const Failure& failure);

// `text` to standard output, after removing the bar. Returns -1 with errno on error.
int printOutput(const std::string& text);

// Draws `bar` in place of the one before.
void drawBar(const std::string& bar);
void removeBar();

// Columns of the terminal, or 80.
int width();

enum class LineBreaks { kReplace, kKeep };

// The text with a ? for each control character, for each character that changes the direction of
// text and for each byte that is not UTF-8.
std::string printable(const std::string& text, LineBreaks breaks = LineBreaks::kReplace);

// The same in place; the new size, which is not larger.
size_t makePrintable(char* text, size_t size, LineBreaks breaks);

// Columns that a terminal takes for a text in UTF-8.
int columnsOf(const std::string& text);

// The text with the marks of a bar's coloured part, unless NO_COLOR is set or the terminal has no
// colours.
std::string green(const std::string& text);

}  // namespace android::qmmediaeditor::cli::console
