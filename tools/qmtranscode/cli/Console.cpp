#include <locale.h>
#include <qmtranscode/cli/Console.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <wchar.h>

#include <algorithm>
#include <string_view>

namespace android::qmmediaeditor::cli::console {

namespace {

// Both null in the parent.
const WorkerLink* gLink = nullptr;
const std::atomic<int>* gColumns = nullptr;

thread_local std::string* tCaptured = nullptr;

// True when a Capture has taken the text.
bool capture(const std::string& text) {
    if (tCaptured == nullptr) return false;
    if (!tCaptured->empty()) *tCaptured += '\n';
    *tCaptured += text;
    return true;
}

struct Character {
    char32_t code;
    size_t bytes;
};

// The first character of `text` in UTF-8 (RFC 3629); 0 bytes if there is none.
Character firstCharacter(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80) return {lead, 1};
    size_t bytes = 2;
    if (lead >= 0xE0) bytes = 3;
    if (lead >= 0xF0) bytes = 4;
    if (lead < 0xC0 || lead > 0xF7 || text.size() < bytes) return {0, 0};
    char32_t code = lead & (0x7F >> bytes);
    for (size_t i = 1; i < bytes; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xC0) != 0x80) return {0, 0};
        code = code << 6 | (byte & 0x3F);
    }
    // Codes below the minimum of their length are overlong encodings.
    constexpr char32_t kMinCodes[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool isSurrogate = code >= 0xD800 && code <= 0xDFFF;
    if (code < kMinCodes[bytes] || code > 0x10FFFF || isSurrogate) return {0, 0};
    return {code, bytes};
}

// Whether a terminal may interpret the character or reorder the text around it.
bool controlsTerminal(char32_t code) {
    return code < 0x20 || (code >= 0x7F && code <= 0x9F) || code == 0x2028 || code == 0x2029 ||
           (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
}

}  // namespace

void useLink(const WorkerLink* link, const std::atomic<int>* columns) {
    gLink = link;
    gColumns = columns;
}

Capture::Capture(std::string* text) : mPrevious(tCaptured) { tCaptured = text; }

Capture::~Capture() { tCaptured = mPrevious; }

void printLine(const std::string& text) {
    if (capture(text)) return;
    if (gLink != nullptr) {
        gLink->send(Message::kLine, text);
    } else {
        // Nobody can be told when standard error fails.
        static_cast<void>(writeAll(STDERR_FILENO, printable(text, LineBreaks::kKeep) + '\n'));
    }
}

void printWarning(const std::string& text) {
    if (capture(text)) return;
    gLink->send(Message::kWarning, "qmtranscode: " + text);
}

int printOutput(const std::string& text) {
    if (writeAll(STDOUT_FILENO, printable(text, LineBreaks::kKeep)) != 0) return -1;
    return checkByClosing(STDOUT_FILENO);
}

void printFailure(const Failure& failure) {
    printLine(printable("qmtranscode: " + failure.text()));
}

void drawBar(const std::string& bar) { gLink->send(Message::kBar, bar); }

void removeBar() {
    if (gLink != nullptr) gLink->send(Message::kRemoveBar);
}

int terminalColumns() {
    winsize size{};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

int width() {
    constexpr int kDefaultColumns = 80;
    const int columns = *gColumns;
    return columns > 0 ? columns : kDefaultColumns;
}

size_t makePrintable(char* text, size_t size, LineBreaks breaks) {
    std::string_view rest(text, size);
    size_t done = 0;
    while (!rest.empty()) {
        const Character character = firstCharacter(rest);
        const bool isKept = character.code == '\n' && breaks == LineBreaks::kKeep;
        if (character.bytes == 0 || (controlsTerminal(character.code) && !isKept)) {
            text[done++] = '?';
        } else {
            memmove(text + done, rest.data(), character.bytes);
            done += character.bytes;
        }
        rest.remove_prefix(std::max<size_t>(character.bytes, 1));
    }
    return done;
}

std::string printable(const std::string& text, LineBreaks breaks) {
    std::string shown = text;
    shown.resize(makePrintable(shown.data(), shown.size(), breaks));
    return shown;
}

int columnsOf(const std::string& text) {
    // File names are taken as UTF-8, independently of the user's locale.
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
    const char* const noColor = getenv("NO_COLOR");
    const char* const terminal = getenv("TERM");
    const bool plain = (noColor != nullptr && *noColor != '\0') || terminal == nullptr ||
                       strcmp(terminal, "dumb") == 0;
    return plain || text.empty() ? text : kGreenBegin + text + kGreenEnd;
}

}  // namespace android::qmmediaeditor::cli::console
