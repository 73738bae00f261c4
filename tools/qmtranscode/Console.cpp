#include <locale.h>
#include <qmtranscode/Console.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utils/Mutex.h>
#include <wchar.h>

#include <algorithm>

namespace android::qmmediaeditor::cli::console {

namespace {

// Back to the first column, and clear to the end of the line.
constexpr const char* kEraseLine = "\r\x1b[K";

Mutex gLock;
std::string gBar GUARDED_BY(gLock);

void write(const std::string& text) {
    fwrite(text.data(), 1, text.size(), stderr);
    fflush(stderr);
}

}  // namespace

void printLine(const std::string& text) {
    Mutex::Autolock lock(gLock);
    write(gBar.empty() ? text + '\n' : kEraseLine + text + '\n' + gBar);
}

void printFailure(const Failure& failure) {
    removeBar();
    std::string line = "qmtranscode: ";
    if (!failure.subject.empty()) line += failure.subject + ": ";
    printLine(printable(line + failure.reason));
}

void drawBar(const std::string& bar) {
    Mutex::Autolock lock(gLock);
    gBar = bar;
    write(kEraseLine + bar);
}

void removeBar() {
    Mutex::Autolock lock(gLock);
    if (gBar.empty()) return;
    gBar.clear();
    write(kEraseLine);
}

int width() {
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
    return size.ws_col;
}

std::string printable(std::string text) {
    for (char& c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F) c = '?';
    }
    return text;
}

int columnsOf(const std::string& text) {
    // Names are UTF-8 whatever the user's language is.
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    const locale_t before = uselocale(utf8);
    mbstate_t state{};
    int columns = 0;
    for (size_t at = 0; at < text.size();) {
        wchar_t character = 0;
        const size_t bytes = mbrtowc(&character, &text[at], text.size() - at, &state);
        const bool valid = bytes > 0 && bytes <= text.size();
        columns += valid ? std::max(0, wcwidth(character)) : 1;
        if (!valid) state = mbstate_t{};
        at += valid ? bytes : 1;
    }
    uselocale(before);
    return columns;
}

std::string green(const std::string& text) {
    const char* const refused = getenv("NO_COLOR");
    const char* const terminal = getenv("TERM");
    const bool plain = (refused != nullptr && *refused != '\0') || terminal == nullptr ||
                       strcmp(terminal, "dumb") == 0;
    return plain || text.empty() ? text : "\x1b[32m" + text + "\x1b[m";
}

}  // namespace android::qmmediaeditor::cli::console
