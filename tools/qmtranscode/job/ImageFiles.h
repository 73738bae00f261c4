// The images of --poster and --contact-sheet. The worker makes them and writes them to memory,
// one behind the other; the parent process gives them their names when the output has its own.
#pragma once

#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/cli/Options.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

// The name of the poster of a period, counted from 0.
std::string posterName(const Options& options, size_t period);

// Refuses places that cannot be written, and names of another file of the command, which are those
// of `others`: of the contact sheet and of `posters` posters. Creates nothing.
std::optional<Failure> checkImages(const Options& options, size_t posters,
                                   const std::vector<std::string>& others);

// Writes an image to the memory, an empty one for a period without a frame; -1 with errno on
// error.
int addImage(int memory, const std::vector<uint8_t>& jpeg);

// Writes the images from the memory to their files: the posters, then the contact sheet. Each is
// complete or absent, and none replaces one of `others`.
std::optional<Failure> publishImages(const Options& options, int memory,
                                     const std::vector<std::string>& others);

}  // namespace android::qmmediaeditor::cli
