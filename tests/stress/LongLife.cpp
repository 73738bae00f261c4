// Many sessions in one process, one after the other and four at a time. Every third one is stopped
// at a random moment: it ends soon, and what is in its file decodes. Threads, descriptors and
// memory come back.
//
// QM_RUNS says how many runs there are of each, and QM_SEED with which random numbers.
#include <android/log.h>
#include <host/Host.h>
#include <malloc.h>
#include <stdio.h>
#include <support/SessionRun.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>

namespace android::qmmediaeditor {

namespace {

constexpr size_t kWorkers = 4;
constexpr size_t kWarmUpRuns = 78;
// The allocators of threads that come and go keep this much. A leak on the heap shows in its own
// count.
constexpr size_t kToleranceBytes = (24 << 20) * kSlowness;

// Of a stop when sessions run one after the other.
constexpr double kMedianSeconds = 0.3 * kSlowness;
constexpr double kWorstSeconds = 1.5 * kSlowness;
// A whole run of a long clip takes about as long.
constexpr uint64_t kLastStopMs = 400 * kSlowness;

size_t residentBytes() {
    malloc_trim(0);
    size_t pages = 0;
    size_t resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

class LongLife {
public:
    LongLife() {
        for (const auto& entry : std::filesystem::directory_iterator(QM_CLIPS_DIR "/short")) {
            mShortClips.push_back(entry.path());
        }
        std::sort(mShortClips.begin(), mShortClips.end());
    }

    // False when anything was wrong.
    bool run(uint64_t runs, size_t workers);

private:
    void runMany(uint64_t runs, size_t workers);
    void runWhole(uint64_t number);
    void runAndStop(uint64_t number);
    void expect(bool holds, const std::string& clip, const std::string& what);

    const uint64_t mSeed = numberFromEnvironment("QM_SEED", 1);
    std::vector<std::string> mShortClips;
    std::mutex mLock;
    std::vector<double> mLatencies;
    std::atomic<bool> mPassed{true};
};

bool LongLife::run(uint64_t runs, size_t workers) {
    runMany(kWarmUpRuns, workers);
    mLatencies.clear();
    const Footprint before = Footprint::take(1 + kForeignThreads);
    const size_t residentBefore = residentBytes();
    runMany(runs, workers);
    const Footprint after = Footprint::take(before.threads + kForeignThreads);
    const size_t residentAfter = residentBytes();
    std::sort(mLatencies.begin(), mLatencies.end());
    const double median = mLatencies.empty() ? 0 : mLatencies[mLatencies.size() / 2];
    const double worst = mLatencies.empty() ? 0 : mLatencies.back();
    printf(
        "%llu runs, %zu at a time: threads %zu to %zu, descriptors %zu to %zu, resident %zu to %zu "
        "kB, heap %zu to %zu kB; %zu stops, median %.3f s, worst %.3f s\n",
        static_cast<unsigned long long>(runs), workers, before.threads, after.threads,
        before.descriptors, after.descriptors, residentBefore >> 10, residentAfter >> 10,
        before.heapBytes >> 10, after.heapBytes >> 10, mLatencies.size(), median, worst);
    return mPassed && after.threads <= before.threads + kForeignThreads &&
           after.descriptors == before.descriptors &&
           residentAfter < residentBefore + kToleranceBytes &&
           after.heapBytes < before.heapBytes + (1 << 20) &&
           (workers > 1 || (median < kMedianSeconds && worst < kWorstSeconds));
}

void LongLife::runMany(uint64_t runs, size_t workers) {
    std::atomic<uint64_t> next{0};
    std::vector<std::thread> threads;
    for (size_t i = 0; i < workers; ++i) {
        threads.emplace_back([&] {
            for (uint64_t number = next++; number < runs; number = next++) {
                number % 3 == 0 ? runAndStop(number) : runWhole(number);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
}

// Every second run is trimmed, here and below.
void LongLife::runWhole(uint64_t number) {
    const std::string& clip = mShortClips[number / 6 % mShortClips.size()];
    std::vector<TrimPeriod> periods;
    if (number % 2 == 0) periods = {{100000, 400000}, {600000, 900000}};
    SessionRun run(clip, periods);
    expect(run.result() == 0, clip, "result " + std::to_string(run.result()));
}

void LongLife::runAndStop(uint64_t number) {
    static const char* const kClips[] = {"steps.mp4", "audio.m4a", "video.mp4", "plain.mp4"};
    const std::string clip = std::string(QM_CLIPS_DIR "/") + kClips[number / 6 % 4];
    std::vector<TrimPeriod> periods;
    if (number % 2 == 0) periods = {{2000000, 4500000}, {6000000, 8000000}};
    std::mt19937_64 random(mSeed + number);
    SessionRun run(clip, periods);
    // The moment is what the test is about.
    run.endsWithin(std::chrono::milliseconds(random() % kLastStopMs));
    const Clock::time_point cancelled = Clock::now();
    run.cancel();
    const double latency = secondsBetween(cancelled, run.endedAt());
    if (latency > 0) {
        std::lock_guard<std::mutex> guard(mLock);
        mLatencies.push_back(latency);
    }
    const int32_t result = run.result();
    expect(result == kStopped || result == 0, clip, "result " + std::to_string(result));
    if (run.output().sizeBytes() == 0) return;
    const std::string complaints = complaintsAbout(run.output().path());
    expect(complaints.empty(), clip, complaints);
}

void LongLife::expect(bool holds, const std::string& clip, const std::string& what) {
    if (holds) return;
    mPassed = false;
    printf("FAILED: %s: %s\n", clip.c_str(), what.c_str());
}

int run() {
    HostOptions options;
    options.avcPreset = "ultrafast";
    const std::shared_ptr<Platform> platform = createHostPlatform(options);
    Platform::install(platform);
    const uint64_t runs = numberFromEnvironment("QM_RUNS", 300 / kSlowness);
    // A period at the end of the range of times ends as well.
    for (const int64_t startUs : {INT64_MAX - 1000000000, INT64_MAX}) {
        SessionRun(QM_CLIPS_DIR "/steps.mp4", {{startUs, INT64_MAX}});
    }
    LongLife life;
    const bool alone = life.run(runs, 1);
    const bool together = life.run(runs, kWorkers);
    return alone && together ? 0 : 1;
}

}  // namespace

}  // namespace android::qmmediaeditor

int main() {
    // One heap for all threads, so that what is counted is the whole.
    mallopt(M_ARENA_MAX, 1);
    __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
    return android::qmmediaeditor::run();
}
