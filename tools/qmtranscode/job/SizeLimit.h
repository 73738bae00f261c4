// The bit rates that keep an output below a size.
#pragma once

#include <qmtranscode/cli/Options.h>
#include <qmtranscode/job/MediaFile.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

class SizeLimit {
public:
    // For an output of this length whose format, from describeOutput(), is that of the options.
    SizeLimit(const Options& options, const MediaFile& input, int64_t lengthUs,
              const sp<AMessage>& format);

    // A failure when no bit rate is low enough.
    std::optional<Failure> check() const;
    // Sets the bit rates.
    void apply(Options* options) const;
    // The output is so short that the encoder must hold its bit rate from the beginning.
    bool isShort() const;
    // Of a run whose output has this size and this length: whether it is to be repeated, because
    // the size is above the limit or, after the first run, so far below it that a higher rate is
    // worth the time. The rates are then changed.
    bool correct(int64_t bytes, int64_t lengthUs);

private:
    // Of the tables of the file, and of the audio.
    double otherBytes() const;
    // The video bit rate for which the runs so far predict this size.
    double predictBitrate(double videoBytes) const;

    const std::string mInput;
    const double mMaxBytes;
    double mSeconds;
    double mTableBytes = 0;
    double mMinVideoBitrate = 0;
    double mVideoBitrate = 0;
    struct Run {
        double bitrate;
        double videoBytes;
    };
    std::vector<Run> mRuns;
    std::optional<int32_t> mAudioBitrate;
    double mAudioRate = 0;  // of the audio in the output, in bits per second
};

}  // namespace android::qmmediaeditor::cli
