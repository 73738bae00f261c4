#include <errno.h>
#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/sandbox/WorkerLink.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <utility>

namespace android::qmmediaeditor::cli {

bool WorkerLink::send(Message message, std::string_view payload) const {
    const int error = errno;
    iovec parts[] = {
        {&message, 1},
        {const_cast<char*>(payload.data()), std::min(payload.size(), kMaxPayload)},
    };
    msghdr header{};
    header.msg_iov = parts;
    header.msg_iovlen = 2;
    ssize_t sent;
    do {
        sent = sendmsg(mFd, &header, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    // A signal handler may call it.
    errno = error;
    return sent > 0;
}

void WorkerLink::sendFailure(std::string_view code, std::string_view reason,
                             std::string_view more) const {
    WorkerResult result;
    result.status = kExitFailed;
    result.codeBytes = static_cast<uint16_t>(code.size());
    char payload[sizeof(result) + 512];
    size_t size = 0;
    const auto add = [&payload, &size](std::string_view part) {
        part = part.substr(0, sizeof(payload) - size);
        memcpy(payload + size, part.data(), part.size());
        size += part.size();
    };
    add({reinterpret_cast<const char*>(&result), sizeof(result)});
    add(code);
    add(reason);
    add(more);
    send(Message::kResult, {payload, size});
}

std::optional<WorkerLink::Received> WorkerLink::receive(char* buffer) const {
    ssize_t size;
    do {
        size = recv(mFd, buffer, kBufferBytes, 0);
    } while (size < 0 && errno == EINTR);
    if (size <= 0) return std::nullopt;
    return Received{static_cast<Message>(buffer[0]), {buffer + 1, static_cast<size_t>(size - 1)}};
}

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

void WorkerControl::reportPercent(int32_t percent) const {
    const char code = static_cast<char>(percent);
    mLink.send(Message::kPercent, {&code, 1});
}

bool WorkerControl::awaitSections(const std::function<void(int32_t)>& onPercent) {
    Mutex::Autolock lock(mLock);
    while (!mHaveSectionsEnded && !mIsParentGone) {
        onPercent(mSectionsPercent);
        mSectionsChanged.wait(mLock);
    }
    return mHaveSectionsEnded;
}

void WorkerControl::reportParts(size_t count) const {
    mLink.send(Message::kParts, {reinterpret_cast<const char*>(&count), sizeof(count)});
}

void WorkerControl::receiveRequests() {
    char buffer[WorkerLink::kBufferBytes];
    while (const auto received = mLink.receive(buffer)) {
        if (received->message == Message::kSectionsPercent ||
            received->message == Message::kSectionsEnded) {
            Mutex::Autolock lock(mLock);
            if (received->message == Message::kSectionsEnded) mHaveSectionsEnded = true;
            if (!received->payload.empty()) {
                mSectionsPercent = static_cast<unsigned char>(received->payload[0]);
            }
            mSectionsChanged.signal();
        }
        if (received->message == Message::kPrintState) mPrintState();
        if (received->message != Message::kStop || mStopRequested) continue;
        Mutex::Autolock lock(mLock);
        mStopRequested = true;
        if (mStop) mStop();
    }
    Mutex::Autolock lock(mLock);
    mIsParentGone = true;
    mSectionsChanged.signal();
}

}  // namespace android::qmmediaeditor::cli
