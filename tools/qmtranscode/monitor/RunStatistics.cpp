#include <qmtranscode/monitor/RunStatistics.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <limits>

namespace android::qmmediaeditor::cli {

namespace {

// Whether the text begins so; if it does, `rest` is what follows.
bool takeStart(const char* text, const char* start, std::string* rest) {
    if (strncmp(text, start, strlen(start)) != 0) return false;
    *rest = text + strlen(start);
    return true;
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
    noteOther(message);
}

void RunCounts::noteOther(const LogMessage& message) {
    const struct {
        const char* start;
        std::string* value;
    } kCodecs[] = {
        {"decodes video with ", &videoDecoder},
        {"decodes audio with ", &audioDecoder},
        {"encodes video with ", &videoEncoder},
        {"encodes audio with ", &audioEncoder},
    };
    for (const auto& codec : kCodecs) {
        if (takeStart(message.text, codec.start, codec.value)) return;
    }
    std::string rest;
    if (takeStart(message.text, "Encoder : ", &rest)) {
        (strcmp(message.tag, "VideoEncoderThread") == 0 ? videoFormat : audioFormat) = rest;
    } else if (takeStart(message.text, "TAudioSource decoderoutput: ", &rest)) {
        mSoundBytesPerSecond = formatNumber(rest, "sample-rate") *
                               formatNumber(rest, "channel-count") *
                               formatNumber(rest, "bits-per-sample") / 8;
    } else if (strstr(message.text, "damaged samples were skipped") != nullptr) {
        const char* number = strstr(message.text, ": ");
        if (number == nullptr) return;
        const std::string decoder(message.text, number);
        (decoder == videoDecoder ? damagedVideo : damagedAudio) += strtoll(number + 2, nullptr, 10);
    }
}

int64_t formatNumber(const std::string& format, const std::string& name) {
    for (const char* type : {" = int32 ", " = float "}) {
        // Another name may end in the same way.
        const std::string key = "\n  " + name + type;
        const size_t at = format.find(key);
        if (at != std::string::npos) return strtoll(&format[at + key.size()], nullptr, 10);
    }
    return 0;
}

int64_t RunCounts::dropped() const {
    int64_t sum = 0;
    for (const PeriodCounts& period : periods) sum += period.dropped;
    return sum;
}

PeriodCounts& RunCounts::periodAt(int64_t timeUs) {
    size_t i = 0;
    while (i + 1 < periods.size() && timeUs >= periods[i].endUs) ++i;
    mPeriodsBegun = std::max(mPeriodsBegun, i + 1);
    return periods[i];
}

void RunCounts::noteSound(int64_t bytes, int64_t timeUs) {
    PeriodCounts& period = periodAt(timeUs);
    if (!period.soundBeginUs) {
        period.soundBeginUs = timeUs;
        // The pictures stand at the time that they have; the sound, behind the sound before it.
        period.skewUs = soundTimeUs(mSoundBytes) - timeUs;
    }
    mSoundBytes += bytes;
    period.soundEndUs = timeUs + soundTimeUs(bytes);
}

int64_t RunCounts::soundTimeUs(int64_t bytes) const {
    if (mSoundBytesPerSecond == 0) return 0;
    return static_cast<int64_t>(static_cast<double>(bytes) * 1e6 /
                                static_cast<double>(mSoundBytesPerSecond));
}

}  // namespace android::qmmediaeditor::cli
