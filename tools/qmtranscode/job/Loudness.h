// The loudness of audio (EBU R 128, by ITU-R BS.1770-4), and the gains that change it.
#pragma once

#include <ebur128.h>
#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/monitor/RunStatistics.h>
#include <stdint.h>

#include <memory>
#include <optional>
#include <vector>

namespace android::qmmediaeditor::cli {

// One thread at a time.
class LoudnessMeter {
public:
    // Interleaved samples, `frames` for each channel. Channels and rate are those of the first
    // call. False when memory is short.
    bool add(const int16_t* samples, int64_t frames, int channels, int sampleRate);

    // In LUFS. Nothing for silence, and for less audio than the 0.4 s that a measurement needs.
    std::optional<double> integrated() const;

    struct Gains {
        std::vector<float> factors;  // HostOptions::audioGains
        double loudness;             // that they lead to, in LUFS
    };
    // For a loudness of `target` LUFS, with peaks of at most -1 dBTP. Only when integrated() has a
    // value.
    Gains gainsFor(double target) const;

private:
    struct StateDeleter {
        void operator()(ebur128_state* state) const { ebur128_destroy(&state); }
    };

    void endStep();
    // Of the audio with these gains.
    std::optional<double> integratedWith(const std::vector<float>& gains) const;
    // Lower before each peak that would exceed the max, and behind it.
    std::vector<float> limitedGains(double gain) const;

    std::unique_ptr<ebur128_state, StateDeleter> mState;
    int64_t mFrames = 0;
    std::vector<double> mPeaks;     // of each complete gain step; 1 is full scale
    double mStepPeak = 0;           // of the incomplete one
    std::vector<double> mEnergies;  // of each complete gain step, as filtered for the loudness
};

// Gets the audio of a session that only measures.
class LoudnessObserver : public RunObserver {
public:
    void onAudio(const int16_t* samples, int64_t frames, int channels, int sampleRate) override;

    // When the session has ended.
    const LoudnessMeter& meter() const { return mMeter; }
    bool lacksMemory() const { return mLacksMemory; }

private:
    // Written by the audio encoder's thread.
    LoudnessMeter mMeter;
    bool mLacksMemory = false;
};

}  // namespace android::qmmediaeditor::cli
