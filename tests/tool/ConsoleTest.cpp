#include <gtest/gtest.h>
#include <qmtranscode/cli/Console.h>

namespace android::qmmediaeditor::cli::console {
namespace {

TEST(Console, printable_replacesOnlyCharactersThatControlATerminal) {
    const std::pair<std::string, std::string> kCases[] = {
        {"plain text", "plain text"},
        {"Gr\u00FC\u00DFe \u4E2D\u6587 \U0001F3AC.mp4",
         "Gr\u00FC\u00DFe \u4E2D\u6587 \U0001F3AC.mp4"},
        {"a\x1b[31mb", "a?[31mb"},
        {"a\r\n\tb\x7F", "a???b?"},
        {std::string("a\0b", 3), "a?b"},
        // C1 controls, as characters and as bytes; adjacent characters are kept.
        {"a\u0080b\u009Bc\u009Fd\u00A0", "a?b?c?d\u00A0"},
        {"a\x9B"
         "b\x80",
         "a?b?"},
        {"\u2027\u2028\u2029\u202A\u202E\u202F", "\u2027????\u202F"},
        {"\u2065\u2066\u2069\u206A", "\u2065??\u206A"},
        // Not UTF-8: a single byte, a truncated and an overlong sequence, a surrogate, a code
        // beyond U+10FFFF.
        {"a\xFF"
         "b",
         "a?b"},
        {"\xE4\xB8", "??"},
        {"\xC0\x9B\xE0\x82\x9B", "?????"},
        {"\xED\xA0\x80", "???"},
        {"\xF4\x90\x80\x80", "????"},
        {"\xE4\xB8\u00FC", "??\u00FC"},
    };
    for (const auto& [text, shown] : kCases) EXPECT_EQ(shown, printable(text)) << shown;
    EXPECT_EQ("a\nb?", printable("a\nb\r", LineBreaks::kKeep));
}

}  // namespace
}  // namespace android::qmmediaeditor::cli::console
