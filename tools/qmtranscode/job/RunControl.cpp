#include <qmtranscode/job/RunControl.h>

#include <utility>

namespace android::qmmediaeditor::cli {

const char* nameOf(WorkerStage stage) {
    switch (stage) {
        case WorkerStage::kOpening:
            return "opening";
        case WorkerStage::kStarting:
        case WorkerStage::kTranscoding:
            return "transcoding";
        case WorkerStage::kVerifying:
            return "verifying";
    }
    return "";
}

void RunControl::requestStop() {
    Mutex::Autolock lock(mLock);
    if (mStopRequested.exchange(true)) return;
    if (mStop) mStop();
}

void RunControl::onStop(std::function<void()> stop) {
    Mutex::Autolock lock(mLock);
    mStop = std::move(stop);
    if (mStopRequested) mStop();
}

void RunControl::ignoreStop() {
    Mutex::Autolock lock(mLock);
    mStop = nullptr;
}

}  // namespace android::qmmediaeditor::cli
