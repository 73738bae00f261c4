// Derives the session's request from the options and the input.
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
Result<std::vector<TrimPeriod>> makePeriods(const Options& options, const MediaFile& input);

// The output-format message; null if no option specifies the output format, so that the session
// follows the input. Each key that belongs to a track of the input is set, because a missing key
// means a default of the session and not the input's value.
Result<sp<AMessage>> makeOutputFormat(const Options& options, const MediaFile& input);

// The container that was asked for, or that the codecs need.
FileFormat outputFileFormat(const Options& options);

}  // namespace android::qmmediaeditor::cli
