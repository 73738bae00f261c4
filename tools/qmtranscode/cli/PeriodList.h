// Lists of periods in files: CSV (RFC 4180) and EDL.
#pragma once

#include <TranscodeTypes.h>
#include <qmtranscode/cli/Failure.h>

#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

struct PeriodList {
    // In time order, without overlap. Either of them is empty.
    std::vector<TrimPeriod> kept;
    std::vector<TrimPeriod> removed;
    // A name for each period to keep; may be empty.
    std::vector<std::string> names;
};

// Lines of a CSV are START,END or START,END,NAME with times as parseTimeUs() takes them; END may be
// empty for the end of the input, and the first line may have the names of the columns. Lines of an
// EDL are START END ACTION in seconds, of which action 0, which removes the period, is supported.
// Empty lines and lines that begin with # are ignored. A failure names the line: "cuts.csv:3".
Result<PeriodList> parsePeriodList(const std::string& name, const std::string& text);

// The same for the content of a file.
Result<PeriodList> readPeriodList(const std::string& path);

}  // namespace android::qmmediaeditor::cli
