#include <errno.h>
#include <qmtranscode/monitor/TraceFile.h>
#include <unistd.h>

#include <string>

namespace android::qmmediaeditor::cli {

TraceFile::~TraceFile() {
    if (mStream != nullptr) fclose(mStream);
}

void TraceFile::begin() {
    const int fd = mFile.duplicate();
    if (fd >= 0) mStream = fdopen(fd, "w");
    if (mStream == nullptr) {
        mError = errno;
        if (fd >= 0) close(fd);
        return;
    }
    keepError(fputs("[", mStream));
    write("M", getpid(), {{"name", "process_name"}, {"args", {{"name", "qmtranscode"}}}});
}

int TraceFile::end() {
    if (mStream == nullptr) return mError;
    keepError(fputs("\n]\n", mStream));
    keepError(fclose(mStream));
    mStream = nullptr;
    return mError;
}

void TraceFile::keepError(int result) {
    if (result < 0 && mError == 0) mError = errno;
}

void TraceFile::onThread(pid_t thread, const char* role) {
    write("M", thread, {{"name", "thread_name"}, {"args", {{"name", role}}}});
}

void TraceFile::onSlice(pid_t thread, const char* what, bool isWait, int64_t startUs,
                        int64_t endUs) {
    const std::string name = isWait ? std::string("waits ") + what : what;
    write("X", thread,
          {{"ts", startUs},
           {"dur", endUs - startUs},
           {"cat", isWait ? "wait" : "work"},
           {"name", name}});
}

void TraceFile::onQueueLength(Queue queue, int64_t length, int64_t timeUs) {
    write("C", getpid(),
          {{"ts", timeUs}, {"name", nameOf(queue)}, {"args", {{"waiting", length}}}});
}

void TraceFile::onEvent(pid_t thread, const char* what, int64_t timeUs) {
    write("i", thread, {{"ts", timeUs}, {"s", "t"}, {"name", what}});
}

void TraceFile::write(const char* phase, pid_t thread, const Json& members) {
    if (mStream == nullptr) return;
    Json event = {{"ph", phase}, {"pid", getpid()}, {"tid", thread}};
    event.update(members);
    const std::string line = (mIsFirst ? "\n" : ",\n") + dumpJsonLine(event);
    keepError(fputs(line.c_str(), mStream));
    mIsFirst = false;
}

}  // namespace android::qmmediaeditor::cli
