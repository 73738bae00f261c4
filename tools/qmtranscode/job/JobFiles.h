// The files of one command, opened before its worker has to do without the right to open any.
#pragma once

#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/cli/Options.h>
#include <qmtranscode/job/InputFile.h>
#include <qmtranscode/job/OutputFile.h>
#include <qmtranscode/monitor/TraceFile.h>

#include <optional>

namespace android::qmmediaeditor::cli {

struct JobFiles {
    InputFile input;
    OutputFile output;
    TraceFile trace;
    int receipt = -1;  // memory that both processes have

    JobFiles() = default;
    ~JobFiles();
    // Output and trace get their names later.
    std::optional<Failure> open(const Options& options);

private:
    JobFiles(const JobFiles&) = delete;
    JobFiles& operator=(const JobFiles&) = delete;
};

}  // namespace android::qmmediaeditor::cli
