#include <host/Host.h>
#include <qmtranscode/job/Loudness.h>
#include <stddef.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <utility>

namespace android::qmmediaeditor::cli {

namespace {

constexpr int64_t kStepsPerSecond = 1000000 / kAudioGainStepUs;
// Windows of 0.4 s, one each 0.1 s.
constexpr size_t kStepsPerHop = kStepsPerSecond / 10;
constexpr size_t kStepsPerWindow = kStepsPerSecond * 4 / 10;
// How long the gain takes to fall before a peak and to rise after it.
constexpr ptrdiff_t kRampSteps = 5;
constexpr double kMaxPeakDb = -1;
constexpr double kMaxGainDb = 60;
constexpr double kAbsoluteGate = -70;
constexpr double kRelativeGate = -10;

double loudnessOf(double energy) { return 10 * std::log10(energy) - 0.691; }
double energyOf(double loudness) { return std::pow(10, (loudness + 0.691) / 10); }
double factorOf(double decibels) { return std::pow(10, decibels / 20); }

// The mean of the energies above the gate, in LUFS.
std::optional<double> gatedLoudness(const std::vector<double>& energies, double gate) {
    double sum = 0;
    int64_t count = 0;
    for (const double energy : energies) {
        if (energy <= energyOf(gate)) continue;
        sum += energy;
        ++count;
    }
    if (count == 0) return std::nullopt;
    return loudnessOf(sum / static_cast<double>(count));
}

std::optional<double> integratedLoudness(const std::vector<double>& energies) {
    const std::optional<double> ungated = gatedLoudness(energies, kAbsoluteGate);
    if (!ungated) return std::nullopt;
    return gatedLoudness(energies, std::max(kAbsoluteGate, *ungated + kRelativeGate));
}

// Each value becomes `combine` of the values at most `distance` away.
template <typename Combine>
std::vector<float> overNeighbours(const std::vector<float>& values, ptrdiff_t distance,
                                  const Combine& combine) {
    std::vector<float> result;
    const auto size = static_cast<ptrdiff_t>(values.size());
    for (ptrdiff_t i = 0; i < size; ++i) {
        result.push_back(combine(values.begin() + std::max<ptrdiff_t>(i - distance, 0),
                                 values.begin() + std::min(i + distance + 1, size)));
    }
    return result;
}

}  // namespace

bool LoudnessMeter::add(const int16_t* samples, int64_t frames, int channels, int sampleRate) {
    if (mState == nullptr) {
        mState.reset(ebur128_init(static_cast<unsigned>(channels),
                                  static_cast<unsigned long>(sampleRate),
                                  EBUR128_MODE_M | EBUR128_MODE_TRUE_PEAK));
        if (mState == nullptr) return false;
    }
    const auto rate = static_cast<int64_t>(mState->samplerate);
    while (frames > 0) {
        const int64_t stepEnd = (static_cast<int64_t>(mPeaks.size()) + 1) * rate / kStepsPerSecond;
        const int64_t taken = std::min(frames, stepEnd - mFrames);
        if (ebur128_add_frames_short(mState.get(), samples, static_cast<size_t>(taken)) !=
            EBUR128_SUCCESS) {
            return false;
        }
        for (unsigned channel = 0; channel < mState->channels; ++channel) {
            double peak = 0;
            ebur128_prev_true_peak(mState.get(), channel, &peak);
            mStepPeak = std::max(mStepPeak, peak);
        }
        mFrames += taken;
        if (mFrames == stepEnd) endStep();
        samples += taken * mState->channels;
        frames -= taken;
    }
    return true;
}

void LoudnessMeter::endStep() {
    double loudness = 0;
    ebur128_loudness_window(mState.get(), 1000 / kStepsPerSecond, &loudness);
    mPeaks.push_back(mStepPeak);
    mEnergies.push_back(std::isfinite(loudness) ? energyOf(loudness) : 0);
    mStepPeak = 0;
}

std::optional<double> LoudnessMeter::integrated() const { return integratedWith({1}); }

std::vector<float> LoudnessMeter::limitedGains(double gain) const {
    std::vector<float> gains;
    const auto addStep = [&](double peak) {
        gains.push_back(static_cast<float>(std::min(gain, factorOf(kMaxPeakDb) / peak)));
    };
    for (const double peak : mPeaks) addStep(peak);
    addStep(mStepPeak);
    // The mean of minima that all include a peak does not exceed what the peak allows. One step
    // more, because gains are interpolated between the steps.
    gains = overNeighbours(gains, kRampSteps + 1,
                           [](auto begin, auto end) { return *std::min_element(begin, end); });
    return overNeighbours(gains, kRampSteps, [](auto begin, auto end) {
        return std::accumulate(begin, end, 0.0F) / static_cast<float>(end - begin);
    });
}

std::optional<double> LoudnessMeter::integratedWith(const std::vector<float>& gains) const {
    std::vector<double> windows;
    for (size_t from = 0; from + kStepsPerWindow <= mEnergies.size(); from += kStepsPerHop) {
        double sum = 0;
        for (size_t step = from; step < from + kStepsPerWindow; ++step) {
            const auto gain = static_cast<double>(gains[std::min(step, gains.size() - 1)]);
            sum += gain * gain * mEnergies[step];
        }
        windows.push_back(sum / kStepsPerWindow);
    }
    return integratedLoudness(windows);
}

LoudnessMeter::Gains LoudnessMeter::gainsFor(double target) const {
    // Limited peaks lower the loudness, which a higher gain makes up for.
    constexpr int kMaxRounds = 10;
    constexpr double kToleranceDb = 0.05;
    double gainDb = target - *integrated();
    std::vector<float> gains = limitedGains(factorOf(gainDb));
    for (int round = 0; round < kMaxRounds; ++round) {
        const double missingDb = target - integratedWith(gains).value_or(target);
        if (std::abs(missingDb) <= kToleranceDb || gainDb + missingDb > kMaxGainDb) break;
        gainDb += missingDb;
        gains = limitedGains(factorOf(gainDb));
    }
    const double loudness = integratedWith(gains).value_or(target);
    return {std::move(gains), loudness};
}

void LoudnessObserver::onAudio(const int16_t* samples, int64_t frames, int channels,
                               int sampleRate) {
    if (!mMeter.add(samples, frames, channels, sampleRate)) mLacksMemory = true;
}

}  // namespace android::qmmediaeditor::cli
