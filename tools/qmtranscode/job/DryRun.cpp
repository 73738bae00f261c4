#include <errno.h>
#include <fcntl.h>
#include <host/foundation/Deadline.h>
#include <qmtranscode/job/DryRun.h>
#include <qmtranscode/job/Session.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <functional>
#include <thread>
#include <utility>

namespace android::qmmediaeditor::cli {

namespace {

constexpr int64_t kMeasurementUs = 2000000;
// A track may begin an hour behind the other, and a machine may have much else to do.
constexpr int64_t kLongestUs = 10000000;
constexpr int64_t kNextLookUs = 50000;

// Stops a session when it has been measured, or after the longest time, unless it is destroyed
// before.
class Deadline {
public:
    Deadline(Session* session, std::function<bool()> enough)
        : mThread([this, session, enough = std::move(enough)] {
              Mutex::Autolock lock(mLock);
              const nsecs_t longest = deadlineAfter(kLongestUs);
              nsecs_t look = deadlineAfter(kMeasurementUs);
              while (!mEnd) {
                  if (waitUntil(look, mDone, mLock)) continue;
                  if (enough() || look >= longest) break;
                  look = deadlineAfter(kNextLookUs);
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
                                  const sp<AMessage>& outputFormat, RunMonitor* monitor,
                                  TrialResult* result) {
    const int memory = memfd_create("qmtranscode-plan", MFD_CLOEXEC);
    const int output = memory < 0 ? -1 : fcntl(memory, F_DUPFD_CLOEXEC, 0);
    if (output < 0) return Failure{kExitFailed, "memory for a measurement", strerror(errno)};

    const int64_t beginUs = nowUs();
    monitor->begin(periods, nullptr);
    int32_t status;
    {
        Session session({input.fd(), output, periods, outputFormat,
                         [monitor](int32_t percent) { monitor->onProgress(percent); }});
        const MediaFile& media = input.media();
        const Deadline deadline(&session, [monitor, &media] {
            return monitor->hasEncoded(media.video.has_value(), media.audio.has_value());
        });
        status = session.run();
    }
    result->counts = monitor->end();
    result->wallSeconds = static_cast<double>(nowUs() - beginUs) / 1e6;
    result->written = readBack(memory);
    close(memory);
    if (status == OK || status == kStopped) return std::nullopt;
    return Failure{kExitUnusable, input.path(), reasonOf(status)};
}

}  // namespace android::qmmediaeditor::cli
