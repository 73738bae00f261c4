#include <errno.h>
#include <fmt/format.h>
#include <qmtranscode/cli/PeriodList.h>
#include <qmtranscode/cli/Values.h>
#include <string.h>

#include <algorithm>
#include <fstream>
#include <optional>
#include <sstream>
#include <string_view>

namespace android::qmmediaeditor::cli {

namespace {

constexpr size_t kMaxBytes = 1 << 20;

// The columns of a line; a column in quotes may contain commas, and two quotes stand for one.
std::vector<std::string> columnsOf(const std::string& line) {
    std::vector<std::string> columns(1);
    bool isQuoted = false;
    for (size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '"') {
            if (isQuoted && i + 1 < line.size() && line[i + 1] == '"') {
                columns.back() += line[++i];
            } else {
                isQuoted = !isQuoted;
            }
        } else if (line[i] == ',' && !isQuoted) {
            columns.emplace_back();
        } else {
            columns.back() += line[i];
        }
    }
    for (std::string& column : columns) {
        column.erase(0, std::min(column.find_first_not_of(" \t"), column.size()));
        column.erase(column.find_last_not_of(" \t") + 1);
    }
    return columns;
}

// Adds the period of a line to the list; the reason why it cannot.
std::string addCsvLine(const std::string& line, PeriodList* list) {
    if (std::count(line.begin(), line.end(), '"') % 2 != 0) return "a quotation mark is missing";
    const std::vector<std::string> columns = columnsOf(line);
    const bool hasName = columns.size() == 3;
    if (columns.size() != 2 && !hasName) return "expected START,END or START,END,NAME";
    const std::optional<TrimPeriod> period = parsePeriod(columns[0] + "-" + columns[1]);
    if (!period) return "expected times such as 90.5 or 1:30.5";
    list->kept.push_back(*period);
    list->names.push_back(hasName ? columns[2] : "");
    return "";
}

std::string addEdlLine(const std::string& line, PeriodList* list) {
    std::istringstream words(line);
    std::string start;
    std::string end;
    std::string action;
    std::string more;
    const bool hasThree = static_cast<bool>(words >> start >> end >> action);
    if (!hasThree || words >> more) return "expected START END ACTION";
    const std::optional<TrimPeriod> period = parsePeriod(start + "-" + end);
    if (!period) return "expected times such as 90.5";
    if (action != "0") return "action " + action + " is not supported; 0 removes the period";
    list->removed.push_back(*period);
    return "";
}

}  // namespace

Result<PeriodList> parsePeriodList(const std::string& name, const std::string& text) {
    PeriodList list;
    std::optional<bool> isCsv;
    // Spreadsheets begin their files with it.
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    const bool hasMark = text.compare(0, kByteOrderMark.size(), kByteOrderMark) == 0;
    std::istringstream lines(hasMark ? text.substr(kByteOrderMark.size()) : text);
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const size_t first = line.find_first_not_of(" \t");
        if (first == std::string::npos || line[first] == '#') continue;
        const bool isFirst = !isCsv;
        if (isFirst) isCsv = line.find(',') != std::string::npos;
        if (isFirst && *isCsv && strncasecmp(line.c_str() + first, "start,", 6) == 0) continue;
        std::string reason = *isCsv ? addCsvLine(line, &list) : addEdlLine(line, &list);
        if (reason.empty()) {
            const std::vector<TrimPeriod>& periods = *isCsv ? list.kept : list.removed;
            reason = checkOrder(periods, periods.size() - 1);
        }
        if (!reason.empty()) {
            return Failure{kExitUsage, fmt::format("{}:{}", name, number), reason, "bad-list"};
        }
    }
    if (list.kept.empty() && list.removed.empty()) {
        return Failure{kExitUsage, name, "the list has no period", "empty-list"};
    }
    return list;
}

Result<PeriodList> readPeriodList(const std::string& path) {
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    std::string text(kMaxBytes + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (file.bad() || !file.is_open()) {
        return systemFailure(kExitUsage, path, errno == 0 ? EIO : errno);
    }
    text.resize(static_cast<size_t>(file.gcount()));
    if (text.size() > kMaxBytes) {
        return Failure{kExitUsage, path, "a list of periods has at most 1 MiB", "list-too-large"};
    }
    return parsePeriodList(path, text);
}

}  // namespace android::qmmediaeditor::cli
