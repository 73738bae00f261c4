// The look at what was written: nothing is called whole that was not read back.
#pragma once

#include <TranscodeTypes.h>
#include <qmtranscode/Failure.h>
#include <qmtranscode/InputFile.h>
#include <qmtranscode/OutputFile.h>
#include <qmtranscode/RunCounts.h>
#include <qmtranscode/TrackWalk.h>

#include <optional>
#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

struct WrittenFile {
    MediaFile media;
    // Every sample of the tracks that `media` has.
    std::optional<TrackSamples> video;
    std::optional<TrackSamples> audio;
};

// Nothing when it cannot be read to its end, or when nothing is in it.
std::optional<WrittenFile> readBack(int fd);

// Compares each track with what the input has of it in the periods, or in all when there are none,
// and with what went to its encoder.
std::optional<Failure> checkWhole(const InputFile& input, const std::vector<TrimPeriod>& periods,
                                  const RunCounts& counts, const WrittenFile& written,
                                  const std::string& outputPath);

}  // namespace android::qmmediaeditor::cli
