#include <errno.h>
#include <inttypes.h>
#include <qmtranscode/monitor/TraceFile.h>
#include <string.h>
#include <unistd.h>

namespace android::qmmediaeditor::cli {

namespace {

template <typename... Values>
std::string textOf(const char* format, Values... values) {
    char text[256];
    snprintf(text, sizeof(text), format, values...);
    return text;
}

}  // namespace

TraceFile::~TraceFile() {
    if (mStream != nullptr) fclose(mStream);
}

std::optional<Failure> TraceFile::open(const std::string& path, bool overwrite,
                                       const InputFile& input, const OutputFile& output) {
    if (auto failure = mFile.locate(path)) return failure;
    if (input.isSameFile(mFile.older())) return Failure{kExitUsage, path, "this is the input"};
    if (mFile.isSameAs(output.file())) return Failure{kExitUsage, path, "this is the output"};
    if (auto failure = mFile.checkPlace(overwrite)) return failure;
    return mFile.create(overwrite);
}

void TraceFile::begin() {
    const int fd = mFile.duplicate();
    if (fd >= 0) mStream = fdopen(fd, "w");
    if (mStream == nullptr) {
        mError = errno;
        if (fd >= 0) close(fd);
        return;
    }
    noteError(fputs("[", mStream));
    write("M", 0, "\"name\":\"process_name\",\"args\":{\"name\":\"qmtranscode\"}");
}

int TraceFile::end() {
    if (mStream == nullptr) return mError;
    noteError(fputs("\n]\n", mStream));
    noteError(fclose(mStream));
    mStream = nullptr;
    return mError;
}

std::optional<Failure> TraceFile::commit(int error) {
    std::optional<Failure> failure;
    if (error != 0) {
        failure = Failure{kExitFailed, mFile.path(), strerror(error)};
    } else {
        failure = mFile.commit();
    }
    if (failure) failure->reason = "the trace could not be written: " + failure->reason;
    return failure;
}

void TraceFile::noteError(int result) {
    if (result < 0 && mError == 0) mError = errno;
}

void TraceFile::thread(pid_t thread, const char* role) {
    write("M", thread, textOf("\"name\":\"thread_name\",\"args\":{\"name\":\"%s\"}", role));
}

void TraceFile::slice(pid_t thread, const char* what, bool waits, int64_t beginUs, int64_t endUs) {
    write("X", thread,
          textOf("\"ts\":%" PRId64 ",\"dur\":%" PRId64 ",\"cat\":\"%s\",\"name\":\"%s%s\"", beginUs,
                 endUs - beginUs, waits ? "wait" : "work", waits ? "waits " : "", what));
}

void TraceFile::depth(Queue queue, int64_t count, int64_t timeUs) {
    write("C", 0,
          textOf("\"ts\":%" PRId64 ",\"name\":\"%s\",\"args\":{\"waiting\":%" PRId64 "}", timeUs,
                 nameOf(queue), count));
}

void TraceFile::event(pid_t thread, const char* what, int64_t timeUs) {
    write("i", thread, textOf("\"ts\":%" PRId64 ",\"s\":\"t\",\"name\":\"%s\"", timeUs, what));
}

void TraceFile::write(const char* phase, pid_t thread, const std::string& rest) {
    if (mStream == nullptr) return;
    noteError(fprintf(mStream, "%s\n{\"ph\":\"%s\",\"pid\":%d,\"tid\":%d,%s}", mFirst ? "" : ",",
                      phase, getpid(), thread == 0 ? getpid() : thread, rest.c_str()));
    mFirst = false;
}

}  // namespace android::qmmediaeditor::cli
