#include <errno.h>
#include <qmtranscode/sandbox/WorkerLink.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>

namespace android::qmmediaeditor::cli {

bool Link::send(Message message, std::string_view payload) const {
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
    // It may be called in a signal handler.
    errno = error;
    return sent > 0;
}

std::optional<Link::Received> Link::receive(char* buffer) const {
    ssize_t size;
    do {
        size = recv(mFd, buffer, kBufferBytes, 0);
    } while (size < 0 && errno == EINTR);
    if (size <= 0) return std::nullopt;
    return Received{static_cast<Message>(buffer[0]), {buffer + 1, static_cast<size_t>(size - 1)}};
}

}  // namespace android::qmmediaeditor::cli
