// Parts of an output that are encoded apart, on other machines or at the same time.
//
// The audio is a part of its own, because encoded audio cannot be cut without a gap. The video is
// cut on the output's time line, and each of its parts begins with a key frame. The file of a part
// begins two seconds before that frame, so that the encoder's rate control has the same state as in
// a single run. These two seconds are left out when the parts are joined.
#pragma once

#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/cli/Options.h>
#include <qmtranscode/job/MediaFile.h>
#include <qmtranscode/job/Request.h>
#include <stdint.h>

#include <optional>
#include <string>

namespace android::qmmediaeditor::cli {

// The video of one section. Times are microseconds of the output.
struct SectionPlan {
    int64_t encodedFromUs = 0;
    int64_t startUs = 0;
    int64_t endUs = 0;    // kEndOfInputUs for the last one
    KeptPeriods periods;  // of the input, from encodedFromUs to endUs
    bool isEmpty() const { return startUs >= endUs; }
};
// `kept` is what the whole output has. A failure if the request cannot be divided.
Result<SectionPlan> planSection(const Options& options, const KeptPeriods& kept,
                                const MediaFile& input);

// The description of a part, in the last box of its file.
struct PartDescription {
    Section section;
    std::string request;  // equal for all parts of one output
    std::string input;    // for the receipt
    bool isComplete = true;
    bool isVideo = false;
    bool isAudio = false;  // neither: it has no samples
    // Of the section, and of the file's first sample.
    int64_t startUs = 0;
    int64_t endUs = 0;
    int64_t firstUs = 0;
    int64_t frames = 0;  // from startUs on
    int32_t fileType = 2;
    bool fastStart = false;
    // For the receipt.
    std::string decoder;
    std::string encoder;
    int32_t inputWidth = 0;
    int32_t inputHeight = 0;
    int32_t inputSampleRate = 0;
    int32_t inputChannels = 0;
    std::optional<int32_t> quality;
    FrameRate frameRate;  // 0 unless it is constant
    int64_t damagedPackets = 0;
    int64_t interlacedFrames = 0;
    int64_t deinterlacedFrames = 0;
    int32_t threads = 0;
    // SHA-256 of the file in front of the description and of the description without it; set by
    // writeDescription().
    std::string digest;
    // Set by readDescription(): the file has that digest.
    bool isIntact = false;
    // errno, if the file could not be read; the rest is not set then.
    int readError = 0;
};

// Adds the box to a file that is open for writing; to an empty one, a file type box as well.
// Returns errno, or 0.
int writeDescription(int fd, const PartDescription& description);
// Nothing if the file has no such box.
std::optional<PartDescription> readDescription(int fd);

// A hash of the input's size and of its first and last bytes; empty if they cannot be read.
std::string inputFingerprint(int fd);

}  // namespace android::qmmediaeditor::cli
