#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <qmtranscode/TraceFile.h>
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
    if (mFile != nullptr) fclose(mFile);
}

std::optional<Failure> TraceFile::open(const std::string& path, bool overwrite) {
    mPath = path;
    const int fd =
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (overwrite ? O_TRUNC : O_EXCL), 0666);
    if (fd < 0) {
        const bool exists = errno == EEXIST;
        return Failure{kExitUsage, path,
                       exists ? "this file exists; --overwrite would replace it" : strerror(errno)};
    }
    mFile = fdopen(fd, "w");
    fputs("[", mFile);
    write("M", 0, "\"name\":\"process_name\",\"args\":{\"name\":\"qmtranscode\"}");
    return std::nullopt;
}

std::optional<Failure> TraceFile::finish() {
    if (mFile == nullptr) return std::nullopt;
    fputs("\n]\n", mFile);
    const bool failed = ferror(mFile) != 0;
    const bool closed = fclose(mFile) == 0;
    mFile = nullptr;
    if (!failed && closed) return std::nullopt;
    return Failure{kExitFailed, mPath,
                   "the trace could not be written: " + std::string(strerror(errno))};
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
    fprintf(mFile, "%s\n{\"ph\":\"%s\",\"pid\":%d,\"tid\":%d,%s}", mFirst ? "" : ",", phase,
            getpid(), thread == 0 ? getpid() : thread, rest.c_str());
    mFirst = false;
}

}  // namespace android::qmmediaeditor::cli
