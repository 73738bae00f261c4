// Stops real sessions at random moments, and measures how soon they end.
//
// QM_STOPS says how many runs are stopped, and QM_SEED with which random numbers.
#include <faults/FaultPlatform.h>
#include <host/Host.h>
#include <stdio.h>
#include <stress/StressSupport.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>

namespace android::qmmediaeditor {

namespace {

constexpr double kMedianSeconds = 0.3 * kSlowness;
constexpr double kWorstSeconds = 1.5 * kSlowness;

class Storm {
public:
    Storm() : mPlatform(createHostPlatform({"veryfast", false, {}})) {
        Platform::install(&mPlatform);
    }

    // 0, or 1 when anything was wrong.
    int run();

private:
    void measureWholeRun(const RunKind& kind);
    void stopByCancel(const RunKind& kind, double afterSeconds);
    void stopByEvent(const RunKind& kind, uint64_t atSample);
    void check(SessionRun* run, const RunKind& kind, bool mayBeWhole);
    void fail(const RunKind& kind, const std::string& what);
    void printLatencies();

    FaultPlatform mPlatform;
    double mWholeSeconds = 0;
    std::vector<double> mLatencies;
    bool mFailed = false;
};

int Storm::run() {
    const uint64_t seed = numberFromEnvironment("QM_SEED", 1);
    const uint64_t stops = numberFromEnvironment("QM_STOPS", 300 / kSlowness);
    printf("seed %llu, %llu stops\n", static_cast<unsigned long long>(seed),
           static_cast<unsigned long long>(stops));
    std::mt19937_64 random(seed);
    const auto& kinds = runKinds();
    for (size_t k = 0; k < kinds.size(); ++k) {
        measureWholeRun(kinds[k]);
        // A little more than the whole, so that some stops come when all is done.
        std::uniform_real_distribution<double> moment(0, mWholeSeconds * 1.05);
        std::uniform_int_distribution<uint64_t> sample(0, 300);
        for (uint64_t i = k; i < stops; i += kinds.size()) {
            if (i / kinds.size() % 4 == 3) {
                stopByEvent(kinds[k], sample(random));
            } else {
                stopByCancel(kinds[k], moment(random));
            }
        }
    }
    printLatencies();
    return mFailed ? 1 : 0;
}

void Storm::measureWholeRun(const RunKind& kind) {
    mPlatform.setScript({});
    const Clock::time_point start = Clock::now();
    SessionRun run(clipPath(kind), kind.periods);
    mWholeSeconds = secondsBetween(start, run.endedAt());
    if (run.result() != 0) fail(kind, "a run that nobody stops: " + std::to_string(run.result()));
}

void Storm::stopByCancel(const RunKind& kind, double afterSeconds) {
    mPlatform.setScript({});
    SessionRun run(clipPath(kind), kind.periods);
    // The moment is what the test is about.
    std::this_thread::sleep_for(std::chrono::duration<double>(afterSeconds));
    const Clock::time_point cancelled = Clock::now();
    run.cancel();
    const double latency = secondsBetween(cancelled, run.endedAt());
    if (latency > 0) {
        mLatencies.push_back(latency);
        if (latency > kWorstSeconds) fail(kind, std::to_string(latency) + " s after cancel()");
    }
    check(&run, kind, true);
}

void Storm::stopByEvent(const RunKind& kind, uint64_t atSample) {
    FaultScript script;
    script.part = FaultScript::Part::kWriter;
    script.what = FaultScript::What::kEvent;
    script.at = atSample;
    script.message = 1;
    const std::shared_ptr<FaultClock> clock = mPlatform.setScript(script);
    SessionRun run(clipPath(kind), kind.periods);
    run.result();
    check(&run, kind, !clock->waitFor(std::chrono::seconds(0)));
}

void Storm::check(SessionRun* run, const RunKind& kind, bool mayBeWhole) {
    const int32_t result = run->result();
    if (result != kStopped && !(result == 0 && mayBeWhole)) {
        fail(kind, "result " + std::to_string(result));
    }
    if (run->output().sizeBytes() == 0) return;
    const std::string complaints = complaintsAbout(run->output().path());
    if (!complaints.empty()) fail(kind, complaints);
}

void Storm::fail(const RunKind& kind, const std::string& what) {
    mFailed = true;
    printf("FAILED: %s: %s\n", kind.name, what.c_str());
}

void Storm::printLatencies() {
    if (mLatencies.empty()) return;
    std::sort(mLatencies.begin(), mLatencies.end());
    const double median = mLatencies[mLatencies.size() / 2];
    printf("cancel() to the end of process(), %zu times: median %.3f s, worst %.3f s\n",
           mLatencies.size(), median, mLatencies.back());
    if (median > kMedianSeconds) {
        mFailed = true;
        printf("FAILED: that is slow\n");
    }
}

}  // namespace

}  // namespace android::qmmediaeditor

int main() {
    __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
    return android::qmmediaeditor::Storm().run();
}
