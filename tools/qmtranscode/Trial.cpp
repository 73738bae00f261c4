#include <errno.h>
#include <fcntl.h>
#include <host/foundation/Deadline.h>
#include <qmtranscode/Session.h>
#include <qmtranscode/Trial.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace android::qmmediaeditor::cli {

namespace {

// Stops a session after a time, unless it is destroyed before.
class Deadline {
public:
    Deadline(Session* session, std::chrono::milliseconds time)
        : mThread([this, session, time] {
              Mutex::Autolock lock(mLock);
              const nsecs_t deadline = deadlineAfter(std::chrono::microseconds(time).count());
              while (!mEnd && waitUntil(deadline, mDone, mLock)) {
              }
              if (!mEnd) session->cancel();
          }) {}

    ~Deadline() {
        {
            Mutex::Autolock lock(mLock);
            mEnd = true;
            mDone.signal();
        }
        mThread.join();
    }

private:
    Mutex mLock;
    Condition mDone;
    bool mEnd GUARDED_BY(mLock) = false;
    std::thread mThread;
};

}  // namespace

std::optional<Failure> tryRequest(const InputFile& input, const std::vector<TrimPeriod>& periods,
                                  const sp<AMessage>& outputFormat, Interrupt* interrupt,
                                  RunMonitor* monitor, TrialResult* result) {
    const int memory = memfd_create("qmtranscode-plan", MFD_CLOEXEC);
    const int output = memory < 0 ? -1 : fcntl(memory, F_DUPFD_CLOEXEC, 0);
    if (output < 0) return Failure{kExitFailed, "memory for a measurement", strerror(errno)};

    const int64_t beginUs = nowUs();
    monitor->begin(periods, nullptr);
    int32_t status;
    {
        Session session({input.fd(), output, periods, outputFormat,
                         [monitor](int32_t percent) { monitor->onProgress(percent); }});
        interrupt->onFirst([&session] { session.cancel(); });
        const Deadline deadline(&session, std::chrono::seconds(2));
        status = session.run();
        interrupt->ignore();
    }
    result->counts = monitor->end();
    result->wallSeconds = static_cast<double>(nowUs() - beginUs) / 1e6;
    result->written = readBack(memory);
    close(memory);
    if (interrupt->requested()) return Failure{kExitStopped, input.path(), "stopped"};
    if (status == OK || status == kStopped) return std::nullopt;
    return Failure{kExitUnusable, input.path(), reasonOf(status)};
}

}  // namespace android::qmmediaeditor::cli
