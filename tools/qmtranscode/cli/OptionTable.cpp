#include <ctype.h>
#include <fmt/format.h>
#include <qmtranscode/cli/OptionTable.h>

#include <sstream>
#include <utility>

namespace android::qmmediaeditor::cli {

namespace {

constexpr const char* kHelpBegin = R"(Usage: qmtranscode [OPTIONS] INPUT OUTPUT

Decodes the first video track and the first audio track of INPUT and encodes
them into OUTPUT, an MP4 or 3GP file: the whole input, or only periods of it.
Values that are not given follow the input.

)";
constexpr const char* kHelpEnd = R"(
Examples
  qmtranscode in.mov out.mp4
  qmtranscode in.mkv out.mp4 --fit 1280x720
  qmtranscode in.mp4 out.mp4 --trim 0-2.5 --trim 1:30-1:45
  qmtranscode in.mp4 out.mp4 --fps 15 --plan

Exit status: 0 complete; 1 failed, another try may succeed; 2 wrong usage;
3 the input cannot be used, or not with these options; 130 stopped by a signal.
)";

// "--size WxH".
std::string synopsis(const OptionText& option) {
    return option.value.empty() ? option.name : option.name + ' ' + option.value;
}

// Sentences: the summary, then the details.
std::string description(const OptionText& option) {
    std::string text = option.summary;
    text[0] = static_cast<char>(toupper(static_cast<unsigned char>(text[0])));
    text += '.';
    return option.details.empty() ? text : text + ' ' + option.details;
}

// Breaks the text at spaces. Lines after the first are indented.
std::string wrapped(const std::string& text, size_t columns, size_t indent) {
    std::istringstream words(text);
    std::string result;
    size_t column = 0;
    for (std::string word; words >> word;) {
        if (column > 0 && column + 1 + word.size() > columns) {
            result += '\n' + std::string(indent, ' ');
            column = 0;
        }
        if (column > 0) result += ' ';
        column += word.size() + (column > 0 ? 1 : 0);
        result += word;
    }
    return result;
}

// Escaped for roff, where a plain `-` is a hyphen. Each sentence begins a line, so that roff spaces
// them alike.
std::string manText(const std::string& text) {
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '-' || text[i] == '\\') result += '\\';
        const bool isSentenceEnd = i > 0 && text[i] == ' ' && text[i - 1] == '.';
        result += isSentenceEnd ? '\n' : text[i];
    }
    return result;
}

std::string manOptions(const std::vector<OptionText>& options) {
    std::string text;
    std::string group;
    for (const OptionText& option : options) {
        if (option.group != group) text += fmt::format(".SS {}\n", option.group);
        group = option.group;
        const std::string name = manText(option.name);
        text += option.value.empty()
                    ? fmt::format(".TP\n.B {}\n", name)
                    : fmt::format(".TP\n.BI {} \" {}\"\n", name, manText(option.value));
        text += manText(description(option)) + '\n';
    }
    return text;
}

std::string markdownTable(const std::vector<OptionText>& options) {
    std::string text = "| option | meaning |\n| --- | --- |\n";
    for (const OptionText& option : options) {
        text += fmt::format("| `{}` | {} |\n", synopsis(option), description(option));
    }
    return text;
}

// Branches of a shell `case` on the argument before the one to complete.
std::string choiceCases(const std::vector<OptionText>& options) {
    std::string text;
    for (const OptionText& option : options) {
        if (option.choices.empty()) continue;
        text += fmt::format("        {}) words=\"{}\" ;;\n", option.name,
                            fmt::join(option.choices, " "));
    }
    return text;
}

// The names of the options that the filter accepts, with `separator` between them.
template <typename Filter>
std::string names(const std::vector<OptionText>& options, const char* separator, Filter filter) {
    std::vector<std::string> result;
    for (const OptionText& option : options) {
        if (filter(option)) result.push_back(option.name);
    }
    return fmt::format("{}", fmt::join(result, separator));
}

}  // namespace

std::string helpText(const std::vector<OptionText>& options) {
    constexpr size_t kColumns = 80;
    constexpr size_t kIndent = 27;
    std::string text = kHelpBegin;
    std::string group;
    for (const OptionText& option : options) {
        if (option.group != group) text += option.group + '\n';
        group = option.group;
        text += fmt::format("  {:<{}}{}\n", synopsis(option), kIndent - 2,
                            wrapped(option.summary, kColumns - kIndent, kIndent));
    }
    return text + kHelpEnd;
}

std::string fillTemplate(std::string text, const std::vector<OptionText>& options) {
    const auto isFree = [](const OptionText& option) {
        return !option.value.empty() && option.value != "FILE" && option.choices.empty();
    };
    const std::pair<std::string, std::string> parts[] = {
        {"@OPTIONS_MAN@\n", manOptions(options)},
        {"@OPTIONS_TABLE@\n", markdownTable(options)},
        {"@OPTION_CHOICES@\n", choiceCases(options)},
        {"@OPTIONS_WITH_VALUE@", names(options, " | ", isFree)},
        {"@OPTION_NAMES@", names(options, " ", [](const OptionText&) { return true; })},
        {"@VERSION@", QMTRANSCODE_VERSION},
    };
    for (const auto& [name, content] : parts) {
        for (size_t at; (at = text.find(name)) != std::string::npos;) {
            text.replace(at, name.size(), content);
        }
    }
    return text;
}

}  // namespace android::qmmediaeditor::cli
