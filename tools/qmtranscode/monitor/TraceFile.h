// A run as a trace, in the JSON form of trace events that the Perfetto UI and Chrome open: a row of
// slices for each thread, a counter for each queue, and the events.
#pragma once

#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/job/InputFile.h>
#include <qmtranscode/job/OutputFile.h>
#include <qmtranscode/job/PendingFile.h>
#include <qmtranscode/monitor/ThreadBoard.h>
#include <stdio.h>

#include <optional>
#include <string>

namespace android::qmmediaeditor::cli {

// Not locked.
class TraceFile : public RunPicture {
public:
    TraceFile() = default;
    ~TraceFile() override;

    // Refuses the input and the output, whatever their spelling.
    std::optional<Failure> open(const std::string& path, bool overwrite, const InputFile& input,
                                const OutputFile& output);

    // In the process that traces: before the first event, and after the last one. `end` returns 0,
    // or errno of the first write that failed.
    void begin();
    int end();

    // In the process that opened the file: writes the trace to disk and gives it its name, unless
    // `error` says that not all of it could be written.
    std::optional<Failure> commit(int error);

    void thread(pid_t thread, const char* role) override;
    void slice(pid_t thread, const char* what, bool waits, int64_t beginUs, int64_t endUs) override;
    void depth(Queue queue, int64_t count, int64_t timeUs) override;
    void event(pid_t thread, const char* what, int64_t timeUs) override;

private:
    TraceFile(const TraceFile&) = delete;
    TraceFile& operator=(const TraceFile&) = delete;

    // One event: `rest` is what follows its phase, process and thread.
    void write(const char* phase, pid_t thread, const std::string& rest);

    // errno of the first failed write; later ones may have another reason, or none.
    void noteError(int result);

    PendingFile mFile;
    FILE* mStream = nullptr;
    int mError = 0;
    bool mFirst = true;
};

}  // namespace android::qmmediaeditor::cli
