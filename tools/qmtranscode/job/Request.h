// Derives the session's request from the options and the input.
#pragma once

#include <TranscodeTypes.h>
#include <media/stagefright/foundation/AMessage.h>
#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/cli/Options.h>
#include <qmtranscode/job/MediaFile.h>

#include <optional>
#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

// The periods of the input that are kept; empty for all of it.
struct KeptPeriods {
    std::vector<TrimPeriod> asked;
    std::vector<TrimPeriod> actual;  // cut off at the end of the input
    std::vector<std::string> names;  // of each, or none; a name may be empty
};
// With Options::part, also the others; see partOf().
Result<KeptPeriods> makePeriods(const Options& options, const MediaFile& input);
// The period with this index alone.
KeptPeriods partOf(const KeptPeriods& kept, size_t index);
// The length of the output, as far as the duration of the input is known.
int64_t outputLengthUs(const KeptPeriods& kept, const MediaFile& input);

// The output-format message; null if no option specifies the output format, so that the session
// follows the input. Each key that belongs to a track of the input is set, because a missing key
// means a default of the session and not the input's value.
Result<sp<AMessage>> makeOutputFormat(const Options& options, const MediaFile& input);
// The same, never null: the format of the output where it follows the input, too.
Result<sp<AMessage>> describeOutput(const Options& options, const MediaFile& input);

// How many bits the AVC encoder spends, as HostOptions has it.
struct VideoRate {
    std::optional<int32_t> quality;  // nothing for an average bit rate
    std::optional<int64_t> maxBitrate;
};
VideoRate videoRate(const Options& options, const MediaFile& input);

// One line for the user when the output's aspect ratio differs from the input's by more than 1 %.
std::optional<std::string> aspectRatioWarning(const Options& options, const MediaFile& input);

// The container that was asked for, or that the codecs need.
FileFormat outputFileFormat(const Options& options);

}  // namespace android::qmmediaeditor::cli
