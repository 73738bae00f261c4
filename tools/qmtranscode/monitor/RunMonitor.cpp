#include <qmtranscode/monitor/RunMonitor.h>

#include <utility>

namespace android::qmmediaeditor::cli {

void RunMonitor::begin(const std::vector<TrimPeriod>& periods, RunPicture* picture) {
    Mutex::Autolock lock(mLock);
    mRunning = true;
    mCounts = RunCounts(periods);
    mBoard = ThreadBoard();
    mBoard.drawInto(picture);
    mPicture = picture;
}

RunCounts RunMonitor::end() {
    Mutex::Autolock lock(mLock);
    mRunning = false;
    mBoard.finish(nowUs());
    mBoard.drawInto(nullptr);
    mPicture = nullptr;
    return std::move(mCounts);
}

void RunMonitor::onMessage(const LogMessage& message) {
    Saying saying;
    const bool understood = understand(message.tag, message.text, &saying);
    Mutex::Autolock lock(mLock);
    if (!mRunning) return;
    const size_t before = mCounts.periodsBegun();
    mCounts.note(message, understood ? &saying : nullptr);
    if (mPicture != nullptr && before > 0 && mCounts.periodsBegun() > before) {
        mPicture->event(message.thread, "cut", message.timeUs);
    }
    if (understood) mBoard.note(message.thread, message.timeUs, saying);
}

void RunMonitor::onProgress(int32_t percent) {
    Mutex::Autolock lock(mLock);
    if (mRunning) mBoard.noteRead(percent, nowUs());
}

int64_t RunMonitor::lastMoveUs() const {
    Mutex::Autolock lock(mLock);
    return mRunning ? mBoard.lastMoveUs() : 0;
}

bool RunMonitor::hasEncoded(bool video, bool audio) const {
    Mutex::Autolock lock(mLock);
    return (!video || mBoard.has(Stage::kPicturesEncoded)) &&
           (!audio || mBoard.has(Stage::kSoundEncoded));
}

std::vector<std::string> RunMonitor::describe() const {
    Mutex::Autolock lock(mLock);
    return mBoard.describe(nowUs());
}

}  // namespace android::qmmediaeditor::cli
