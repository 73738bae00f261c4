// The look at what was written: nothing is called whole that was not read back.
#pragma once

#include <TranscodeTypes.h>
#include <qmtranscode/Failure.h>
#include <qmtranscode/InputFile.h>
#include <qmtranscode/OutputFile.h>

#include <optional>
#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

// Nothing when there is no file, or none that can be read, or nothing in it.
std::optional<MediaFile> readBack(const OutputFile& output);

// Compares each track with what the input has of it in the periods, or in all when there are none.
std::optional<Failure> checkWhole(const InputFile& input, const std::vector<TrimPeriod>& periods,
                                  const MediaFile& written, const OutputFile& output);

// "avc 1280x720 30 fps, aac 48000 Hz 2 channels, 10.00 s, 5.1 MB"
std::string describe(const MediaFile& media);

}  // namespace android::qmmediaeditor::cli
