// What the log tells of a run in numbers, for the receipt.
#pragma once

#include <TranscodeTypes.h>
#include <qmtranscode/monitor/LogEvent.h>
#include <qmtranscode/monitor/LogOutput.h>

#include <optional>
#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

struct PeriodCounts {
    // Where the period lies in the output.
    int64_t beginUs = 0;
    int64_t endUs = 0;
    // Pictures that the output's frame rate left no place for.
    int64_t dropped = 0;
    // The sound that was taken of it, in output time; nothing without any.
    std::optional<int64_t> soundBeginUs;
    int64_t soundEndUs = 0;
    // How much later its sound is heard than its pictures are seen.
    int64_t skewUs = 0;
};

struct RunCounts {
    RunCounts() : RunCounts(std::vector<TrimPeriod>()) {}
    // `periods` may be empty: then the whole input is one.
    explicit RunCounts(const std::vector<TrimPeriod>& periods);

    // `saying` is null for a message that says nothing of stages.
    void note(const LogMessage& message, const Saying* saying);

    int64_t dropped() const;
    // Of how many periods something has come.
    size_t periodsBegun() const { return mPeriodsBegun; }
    // Length of the sound that went to the encoder.
    int64_t soundUs() const { return soundTimeUs(mSoundBytes); }

    std::vector<PeriodCounts> periods;
    int64_t picturesDecoded = 0;  // those outside of the periods not among them
    // Samples that no decoder could make anything of.
    int64_t damagedVideo = 0;
    int64_t damagedAudio = 0;
    int64_t damaged() const { return damagedVideo + damagedAudio; }
    // Names of the host's codecs; empty for a track that is not there.
    std::string videoDecoder, audioDecoder, videoEncoder, audioEncoder;
    // What the encoders were told to make, written out.
    std::string videoFormat, audioFormat;

private:
    PeriodCounts& periodAt(int64_t timeUs);
    void noteOther(const LogMessage& message);
    void noteSound(int64_t bytes, int64_t timeUs);
    int64_t soundTimeUs(int64_t bytes) const;

    int64_t mSoundBytes = 0;
    int64_t mSoundBytesPerSecond = 0;
    size_t mPeriodsBegun = 0;
};

// The number of this name in a format that was written out; 0 when it is not there.
int64_t formatNumber(const std::string& format, const std::string& name);

}  // namespace android::qmmediaeditor::cli
