// The check after the run: no output is called complete that was not read back.
#pragma once

#include <TranscodeTypes.h>
#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/job/InputFile.h>
#include <qmtranscode/job/OutputFile.h>
#include <qmtranscode/job/TrackWalk.h>
#include <qmtranscode/monitor/RunFacts.h>
#include <qmtranscode/monitor/RunStatistics.h>

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

// Compares the output with what the session took from the input: every frame at its timestamp, the
// length of the last frame, all audio samples, the uuid data.
std::optional<Failure> checkWhole(const InputFile& input, const RunCounts& counts,
                                  const RunFacts& facts, const WrittenFile& written,
                                  const std::string& outputPath);

// Until when every track of the file lasts, in microseconds.
int64_t commonEndUs(const WrittenFile& written);

}  // namespace android::qmmediaeditor::cli
