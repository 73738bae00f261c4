#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <support/SessionRun.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

namespace android::qmmediaeditor {

namespace {

// Of a audio movie that ended before its first sample.
constexpr const char* kNoTracks = "Output file #0 does not contain any stream\n";

[[noreturn]] void giveUp(const char* what) {
    fprintf(stderr, "%s\n", what);
    abort();
}

size_t countEntries(const char* folder) {
    DIR* dir = opendir(folder);
    if (dir == nullptr) giveUp(folder);
    size_t count = 0;
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
    return count - 2;  // "." and ".."
}

}  // namespace

TemporaryFile::TemporaryFile() : mPath("/tmp/qm-test-XXXXXX.mp4") {
    const int fd = mkostemps(mPath.data(), 4, O_CLOEXEC);
    if (fd < 0) giveUp("no temporary file");
    close(fd);
}

TemporaryFile::~TemporaryFile() { unlink(mPath.c_str()); }

int64_t TemporaryFile::sizeBytes() const {
    struct stat status {};
    return stat(mPath.c_str(), &status) == 0 ? status.st_size : -1;
}

int TemporaryFile::open() const { return ::open(mPath.c_str(), O_RDWR | O_CLOEXEC); }

SessionRun::SessionRun(const std::string& clip, std::vector<TrimPeriod> periods,
                       std::shared_ptr<Platform> platform, const sp<AMessage>& outputFormat)
    : mPeriods(std::move(periods)), mComponent(new TranscodeComponent) {
    mProperty.mInputFd = ::open(clip.c_str(), O_RDONLY | O_CLOEXEC);
    if (mProperty.mInputFd < 0) giveUp(clip.c_str());
    // The session closes it.
    mProperty.mOutputFd = mOutput.open();
    mProperty.mProgressCallback = [](int32_t) {};
    mProperty.mTrimEnabled = !mPeriods.empty();
    mProperty.mPeriodCount = static_cast<int32_t>(mPeriods.size());
    mProperty.mPeriods = mPeriods.data();
    mProperty.mOutputFormat = outputFormat;
    mComponent->create(&mProperty, std::move(platform));
    mThread = std::thread([this] {
        mResult = mComponent->process();
        mEndedAt = Clock::now();
        mEnd.set_value();
    });
}

SessionRun::~SessionRun() {
    waitForEnd();
    mThread.join();
    mComponent->destory();
    close(mProperty.mInputFd);
}

void SessionRun::waitForEnd() {
    if (!endsWithin(kEndBound)) giveUp("a run does not end");
}

int32_t SessionRun::result() {
    waitForEnd();
    return mResult;
}

Clock::time_point SessionRun::endedAt() {
    waitForEnd();
    return mEndedAt;
}

std::string complaintsAbout(const std::string& path) {
    const std::string command =
        "ffmpeg -nostdin -v error -xerror -i '" + path + "' -f null - 2>&1 </dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return "ffmpeg cannot be run";
    std::string said;
    char line[512];
    while (fgets(line, sizeof(line), pipe) != nullptr) said += line;
    if (pclose(pipe) == 0 || !said.empty()) return said == kNoTracks ? "" : said;
    return "ffmpeg failed";
}

Footprint Footprint::take(size_t expectedThreads) {
    const Clock::time_point end = Clock::now() + std::chrono::seconds(2 * kSlowness);
    size_t threads = countEntries("/proc/self/task");
    while (threads > expectedThreads && Clock::now() < end) {
        // The kernel tells nobody when a detached thread is gone.
        usleep(1000);
        threads = countEntries("/proc/self/task");
    }
    return {threads, countEntries("/proc/self/fd"), mallinfo2().uordblks + mallinfo2().hblkhd};
}

}  // namespace android::qmmediaeditor
