#include <qmtranscode/sandbox/WorkerControl.h>
#include <sys/socket.h>

#include <utility>

namespace android::qmmediaeditor::cli {

WorkerControl::WorkerControl(const WorkerLink& link, std::function<void()> printState)
    : mLink(link), mPrintState(std::move(printState)), mThread([this] { receiveRequests(); }) {}

WorkerControl::~WorkerControl() {
    shutdown(mLink.fd(), SHUT_RD);
    mThread.join();
}

void WorkerControl::onStop(std::function<void()> stop) {
    Mutex::Autolock lock(mLock);
    mStop = std::move(stop);
    if (mStopRequested) mStop();
}

void WorkerControl::ignoreStop() {
    Mutex::Autolock lock(mLock);
    mStop = nullptr;
}

void WorkerControl::report(WorkerStage stage) const {
    const char code = static_cast<char>(stage);
    mLink.send(Message::kStage, {&code, 1});
}

void WorkerControl::receiveRequests() {
    char buffer[WorkerLink::kBufferBytes];
    while (const auto received = mLink.receive(buffer)) {
        if (received->message == Message::kPrintState) mPrintState();
        if (received->message != Message::kStop || mStopRequested) continue;
        Mutex::Autolock lock(mLock);
        mStopRequested = true;
        if (mStop) mStop();
    }
}

}  // namespace android::qmmediaeditor::cli
