#include <fakes/LogCapture.h>

namespace android::qmmediaeditor {

namespace {

LogCapture* gCapture = nullptr;

}  // namespace

LogCapture::LogCapture(Journal* journal)
    : mJournal(journal), mPriorityBefore(__android_log_get_minimum_priority()) {
    gCapture = this;
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(record);
}

// Takes the logger's own lock: no message is being recorded once the logger is another.
LogCapture::~LogCapture() {
    __android_log_set_logger(__android_log_stderr_logger);
    __android_log_set_minimum_priority(mPriorityBefore);
    gCapture = nullptr;
}

void LogCapture::record(const __android_logger_data* data, const char* text) {
    const std::string tag = data->tag == nullptr ? "" : data->tag;
    {
        std::lock_guard<std::mutex> guard(gCapture->mLock);
        gCapture->mLines.push_back({data->priority, tag, text, std::this_thread::get_id()});
    }
    gCapture->mJournal->add(tag + ": " + text);
}

std::vector<LogCapture::Line> LogCapture::lines() const {
    std::lock_guard<std::mutex> guard(mLock);
    return mLines;
}

bool LogCapture::contains(int priority, const std::string& tag, const std::string& text) const {
    for (const Line& line : lines()) {
        if (line.priority == priority && line.tag == tag && line.text == text) return true;
    }
    return false;
}

}  // namespace android::qmmediaeditor
