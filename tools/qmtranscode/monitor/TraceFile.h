// A trace of a run, in the JSON format of trace events that the Perfetto UI and Chrome open: a row
// of slices for each thread, a counter for each queue, and the events.
#pragma once

#include <qmtranscode/job/PendingFile.h>
#include <qmtranscode/monitor/RunMonitor.h>
#include <qmtranscode/report/Format.h>
#include <stdio.h>

namespace android::qmmediaeditor::cli {

// Not locked.
class TraceFile : public TraceSink {
public:
    // `file` is created and committed by the parent process.
    explicit TraceFile(const PendingFile& file) : mFile(file) {}
    ~TraceFile() override;

    // Before the first event, and after the last one. `end` returns 0, or errno of the first write
    // that failed.
    void begin();
    int end();

    void onThread(pid_t thread, const char* role) override;
    void onSlice(pid_t thread, const char* what, bool isWait, int64_t startUs,
                 int64_t endUs) override;
    void onQueueLength(Queue queue, int64_t length, int64_t timeUs) override;
    void onEvent(pid_t thread, const char* what, int64_t timeUs) override;

private:
    TraceFile(const TraceFile&) = delete;
    TraceFile& operator=(const TraceFile&) = delete;

    // Adds phase, process and thread to the event's other members.
    void write(const char* phase, pid_t thread, const Json& members);

    // errno of the first failed write; later ones may have another reason, or none.
    void keepError(int result);

    const PendingFile& mFile;
    FILE* mStream = nullptr;
    int mError = 0;
    bool mIsFirst = true;
};

}  // namespace android::qmmediaeditor::cli
