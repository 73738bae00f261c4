// From what the user asked for, and what the input is, to what the session is given.
#pragma once

#include <TranscodeTypes.h>
#include <media/stagefright/foundation/AMessage.h>
#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/cli/Options.h>
#include <qmtranscode/job/MediaFile.h>

#include <optional>
#include <vector>

namespace android::qmmediaeditor::cli {

// The periods to keep, cut off at the end of the input.
std::optional<Failure> makePeriods(const Options& options, const MediaFile& input,
                                   std::vector<TrimPeriod>* periods);

// The output-format message; null when nothing of it was asked for, and the session follows the
// input. Each key that belongs to a track of the input is set: a missing one has a default of its
// own, and would not mean "as the input".
std::optional<Failure> makeOutputFormat(const Options& options, const MediaFile& input,
                                        sp<AMessage>* format);

// The kind of file that is asked for, or that the codecs need.
FileFormat outputFileFormat(const Options& options);

}  // namespace android::qmmediaeditor::cli
