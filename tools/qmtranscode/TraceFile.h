// A run as a trace, in the JSON form of trace events that the Perfetto UI and Chrome open: a row of
// slices for each thread, a counter for each queue, and the events.
#pragma once

#include <qmtranscode/Failure.h>
#include <qmtranscode/ThreadBoard.h>
#include <stdio.h>

#include <optional>
#include <string>

namespace android::qmmediaeditor::cli {

// Not locked.
class TraceFile : public RunPicture {
public:
    TraceFile() = default;
    ~TraceFile() override;

    std::optional<Failure> open(const std::string& path, bool overwrite);
    // A failure when not all of it could be written.
    std::optional<Failure> finish();

    void thread(pid_t thread, const char* role) override;
    void slice(pid_t thread, const char* what, bool waits, int64_t beginUs, int64_t endUs) override;
    void depth(Queue queue, int64_t count, int64_t timeUs) override;
    void event(pid_t thread, const char* what, int64_t timeUs) override;

private:
    TraceFile(const TraceFile&) = delete;
    TraceFile& operator=(const TraceFile&) = delete;

    // One event: `rest` is what follows its phase, process and thread.
    void write(const char* phase, pid_t thread, const std::string& rest);

    std::string mPath;
    FILE* mFile = nullptr;
    bool mFirst = true;
};

}  // namespace android::qmmediaeditor::cli
