// Standard output, standard error and the progress bar. In the worker, all text goes to the parent
// process, which keeps the bar below the messages. No text can control the terminal. Any thread may
// call any operation.
#pragma once

#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/sandbox/WorkerLink.h>
#include <stddef.h>

#include <atomic>
#include <string>

namespace android::qmmediaeditor::cli::console {

// Moves to the first column and clears the line.
constexpr const char* kEraseLine = "\r\x1b[K";

// From now on, text goes to the parent process; `columns` is the width of its terminal. To be
// called by the worker before it has other threads.
void useLink(const WorkerLink* link, const std::atomic<int>* columns);

// Prints one or more lines on standard error. `text` ends without a line break.
void printLine(const std::string& text);
// One line, which the JSON object of the run contains, too. In the worker only.
void printWarning(const std::string& text);
// One line.
void printFailure(const Failure& failure);

// While it exists, the lines and warnings of its thread are added to `text`, with line breaks
// between them, and nothing is printed.
class Capture {
public:
    explicit Capture(std::string* text);
    ~Capture();

private:
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    std::string* const mPrevious;  // a job may run within another one's progress function
};

// Prints on standard output. Returns -1 with errno on error.
int printOutput(const std::string& text);

// Shows the bar or replaces it. In the worker only, as removeBar().
void drawBar(const std::string& bar);
void removeBar();

// The width of the terminal of this process, 0 without a terminal.
int terminalColumns();
// The width of the parent's terminal; 80 if it is unknown.
int width();

enum class LineBreaks { kReplace, kKeep };

// Replaces each control character, each character that changes the direction of text and each byte
// that is not UTF-8 by a question mark.
std::string printable(const std::string& text, LineBreaks breaks = LineBreaks::kReplace);

// The same in place. Returns the new size, which is not larger. Does not allocate.
size_t makePrintable(char* text, size_t size, LineBreaks breaks);

// The width of UTF-8 text on a terminal.
int columnsOf(const std::string& text);

// Marks the text as the coloured part of the bar, unless NO_COLOR is set or the terminal has no
// colours.
std::string green(const std::string& text);

}  // namespace android::qmmediaeditor::cli::console
