#include <qmtranscode/RunCounts.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <limits>

namespace android::qmmediaeditor::cli {

namespace {

// The int32 of this name in a format that was written out; 0 when it is not there.
int64_t valueOf(const char* format, const char* name) {
    const std::string key = std::string(name) + " = int32 ";
    const char* at = strstr(format, key.c_str());
    return at == nullptr ? 0 : strtoll(at + key.size(), nullptr, 10);
}

void addOnce(const char* name, std::vector<std::string>* names) {
    for (const std::string& known : *names) {
        if (known == name) return;
    }
    names->emplace_back(name);
}

}  // namespace

RunCounts::RunCounts(const std::vector<TrimPeriod>& kept) {
    int64_t timeUs = 0;
    for (const TrimPeriod& period : kept) {
        PeriodCounts counts;
        counts.beginUs = timeUs;
        timeUs += period.mEndUs - period.mStartUs;
        counts.endUs = timeUs;
        periods.push_back(counts);
    }
    if (!periods.empty()) return;
    periods.emplace_back();
    periods.back().endUs = std::numeric_limits<int64_t>::max();
}

void RunCounts::note(const LogMessage& message, const Saying* saying) {
    if (saying != nullptr) {
        const Phrase& phrase = *saying->phrase;
        if (phrase.stage == Stage::kPicturesDecoded) ++picturesDecoded;
        if (phrase.effect == Effect::kDropped) ++periodAt(saying->second).dropped;
        if (phrase.stage == Stage::kSoundDecoded) noteSound(saying->first, saying->second);
        return;
    }
    constexpr char kDecodes[] = "decodes with ";
    constexpr char kEncodes[] = "encodes with ";
    if (strncmp(message.text, kDecodes, strlen(kDecodes)) == 0) {
        addOnce(message.text + strlen(kDecodes), &decoders);
    } else if (strncmp(message.text, kEncodes, strlen(kEncodes)) == 0) {
        addOnce(message.text + strlen(kEncodes), &encoders);
    } else if (strncmp(message.text, "TAudioSource decoderoutput: ", 28) == 0) {
        soundBytesPerSecond = valueOf(message.text, "sample-rate") *
                              valueOf(message.text, "channel-count") *
                              valueOf(message.text, "bits-per-sample") / 8;
    } else if (strstr(message.text, "damaged samples were skipped") != nullptr) {
        const char* number = strstr(message.text, ": ");
        if (number != nullptr) damaged += strtoll(number + 2, nullptr, 10);
    }
}

int64_t RunCounts::dropped() const {
    int64_t sum = 0;
    for (const PeriodCounts& period : periods) sum += period.dropped;
    return sum;
}

PeriodCounts& RunCounts::periodAt(int64_t timeUs) {
    for (PeriodCounts& period : periods) {
        if (timeUs < period.endUs) return period;
    }
    return periods.back();
}

void RunCounts::noteSound(int64_t bytes, int64_t timeUs) {
    PeriodCounts& period = periodAt(timeUs);
    if (!period.soundBeginUs) {
        period.soundBeginUs = timeUs;
        // The pictures stand at the time that they have; the sound, behind the sound before it.
        period.skewUs = soundTimeUs(soundBytes) - timeUs;
    }
    soundBytes += bytes;
    period.soundEndUs = timeUs + soundTimeUs(bytes);
}

int64_t RunCounts::soundTimeUs(int64_t bytes) const {
    if (soundBytesPerSecond == 0) return 0;
    return static_cast<int64_t>(static_cast<double>(bytes) * 1e6 /
                                static_cast<double>(soundBytesPerSecond));
}

}  // namespace android::qmmediaeditor::cli
