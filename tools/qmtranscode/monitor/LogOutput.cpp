#include <log/logprint.h>
#include <qmtranscode/cli/Console.h>
#include <qmtranscode/monitor/LogOutput.h>
#include <qmtranscode/monitor/Timer.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>
#include <utils/Mutex.h>

namespace android::qmmediaeditor::cli {

namespace {

// Never freed, because threads may log until the process ends.
AndroidLogFormat* gFormat = nullptr;
Mutex gFormatLock;
LogListener* gListener = nullptr;
void (*gOnFailedCheck)(const std::string& reason) = nullptr;

void printMessage(android_LogPriority priority, const char* tag, const char* message) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);

    AndroidLogEntry entry{};
    entry.tv_sec = now.tv_sec;
    entry.tv_nsec = now.tv_nsec;
    entry.priority = priority;
    entry.uid = -1;
    entry.pid = getpid();
    entry.tid = gettid();
    entry.tag = tag;
    entry.tagLen = strlen(tag);
    entry.message = message;
    entry.messageLen = strlen(message);

    // The formatter has a cache of its filters.
    Mutex::Autolock lock(gFormatLock);
    if (android_log_shouldPrintLine(gFormat, tag, priority) == 0) return;
    char buffer[1024];
    size_t length = 0;
    char* line = android_log_formatLogLine(gFormat, buffer, sizeof(buffer), &entry, &length);
    if (line == nullptr) return;
    while (length > 0 && line[length - 1] == '\n') --length;
    console::printLine(std::string(line, length));
    if (line != buffer) free(line);
}

void handleMessage(const __android_logger_data* data, const char* message) {
    const char* tag = data->tag == nullptr ? "" : data->tag;
    gListener->onMessage({data->priority, tag, message, nowUs(), gettid()});
    if (gFormat != nullptr) {
        printMessage(static_cast<android_LogPriority>(data->priority), tag, message);
    }
}

void endProcess(const char* message) {
    std::string text = message == nullptr ? "no reason given" : message;
    while (!text.empty() && text.back() == '\n') text.pop_back();
    gOnFailedCheck(text);
}

}  // namespace

void installLog(const std::optional<std::string>& filter, const std::string& format,
                LogListener* listener, void (*onFailedCheck)(const std::string& reason)) {
    gListener = listener;
    gOnFailedCheck = onFailedCheck;
    if (filter) {
        gFormat = android_log_format_new();
        android_log_setPrintFormat(gFormat, android_log_formatFromString(format.c_str()));
        android_log_addFilterString(gFormat, filter->c_str());
    }
    __android_log_set_aborter(endProcess);
    __android_log_set_logger(handleMessage);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

}  // namespace android::qmmediaeditor::cli
