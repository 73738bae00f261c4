// Timestamps of AVI packets behind a damaged part. Private to the extractor.
//
// AVI has no timestamps: libavformat counts the frames that it finds, so that content behind a
// damaged part would move to the place of what was lost. The file's index says which frame is at a
// position. Without an index, the time that was lost follows from the number of lost bytes.
//
// One thread at a time.
#pragma once

#include <stdint.h>
#include <utils/Errors.h>

#include <memory>
#include <utility>
#include <vector>

#include "host/convert/FFmpegPointers.h"
#include "host/io/DescriptorFile.h"

struct AVStream;

namespace android {
namespace qmmediaeditor {

struct AviGap {
    int64_t position;  // of the first byte behind it
    int64_t lostUs;
};

class AviTimestamps {
public:
    struct Gaps {
        std::vector<AviGap> gaps;  // in file order; empty for a file with an index
        status_t status;           // ERROR_IO or NO_MEMORY when the file could not be read
    };
    // Reads the whole file if it has no index.
    static Gaps findGaps(const std::shared_ptr<const DescriptorFile>& file);

    explicit AviTimestamps(std::vector<AviGap> gaps) : mGaps(std::move(gaps)) {}

    // For each packet of `stream` in the order of reading.
    void correct(const AVStream& stream, AVPacket* packet);
    // The next packet follows a seek.
    void restart();

private:
    int64_t indexShift(const AVStream& stream, const AVPacket& packet);

    const std::vector<AviGap> mGaps;
    int64_t mPosition = -1;  // of the latest packet
    int mEntry = -1;         // its entry in the index
    int64_t mShift = 0;      // in ticks of the stream
};

}  // namespace qmmediaeditor
}  // namespace android
