// Many sessions in one process, one after the other and four at a time: threads, descriptors and
// memory come back.
//
// QM_RUNS says how many there are of each.
#include <host/Host.h>
#include <malloc.h>
#include <stdio.h>
#include <stress/StressSupport.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <set>

namespace android::qmmediaeditor {

namespace {

constexpr size_t kWorkers = 4;
constexpr size_t kWarmUpRuns = 78;
// What the allocators of threads that come and go keep. A leak on the heap shows in its own count.
constexpr size_t kToleranceBytes = (24 << 20) * kSlowness;

size_t residentBytes() {
    malloc_trim(0);
    size_t pages = 0;
    size_t resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

const std::vector<std::string>& clips() {
    static const std::vector<std::string> kClips = [] {
        std::set<std::string> sorted;
        for (const auto& entry : std::filesystem::directory_iterator(QM_CLIPS_DIR "/short")) {
            sorted.insert(entry.path());
        }
        return std::vector<std::string>(sorted.begin(), sorted.end());
    }();
    return kClips;
}

// Every second run is trimmed, every third one stopped on its way. False when a run ends otherwise
// than it should.
bool runOne(uint64_t number) {
    const std::string& clip = clips()[number / 6 % clips().size()];
    std::vector<TrimPeriod> periods;
    if (number % 2 == 0) periods = {{100000, 400000}, {600000, 900000}};
    SessionRun run(clip, periods);
    const bool stops = number % 3 == 0;
    if (stops) {
        run.endsWithin(std::chrono::milliseconds(5 * (number % 16)));
        run.cancel();
    }
    const int32_t result = run.result();
    if (result == 0 || (stops && result == kStopped)) return true;
    printf("FAILED: %s ends with %d\n", clip.c_str(), result);
    return false;
}

bool runMany(uint64_t runs, size_t workers) {
    std::atomic<uint64_t> next{0};
    std::atomic<bool> passed{true};
    std::vector<std::thread> threads;
    for (size_t i = 0; i < workers; ++i) {
        threads.emplace_back([&] {
            for (uint64_t number = next++; number < runs; number = next++) {
                if (!runOne(number)) passed = false;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    return passed;
}

bool livesLong(uint64_t runs, size_t workers) {
    bool passed = runMany(kWarmUpRuns, workers);
    const Footprint before = Footprint::take(1 + kForeignThreads);
    const size_t residentBefore = residentBytes();
    passed = runMany(runs, workers) && passed;
    const Footprint after = Footprint::take(before.threads + kForeignThreads);
    const size_t residentAfter = residentBytes();
    printf(
        "%llu runs, %zu at a time: threads %zu to %zu, descriptors %zu to %zu, "
        "resident %zu to %zu kB, heap %zu to %zu kB\n",
        static_cast<unsigned long long>(runs), workers, before.threads, after.threads,
        before.descriptors, after.descriptors, residentBefore >> 10, residentAfter >> 10,
        before.heapBytes >> 10, after.heapBytes >> 10);
    return passed && after.threads <= before.threads + kForeignThreads &&
           after.descriptors == before.descriptors &&
           residentAfter < residentBefore + kToleranceBytes &&
           after.heapBytes < before.heapBytes + (1 << 20);
}

int run() {
    const std::unique_ptr<Platform> platform = createHostPlatform({"ultrafast", false, {}});
    Platform::install(platform.get());
    const uint64_t runs = numberFromEnvironment("QM_RUNS", 300 / kSlowness);
    const bool alone = livesLong(runs, 1);
    const bool together = livesLong(runs, kWorkers);
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
