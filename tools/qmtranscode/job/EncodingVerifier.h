// Verification of what the encoders have made: the output is decoded while it is made and compared
// with the encoders' input, and the file is then compared with what was decoded.
#pragma once

#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/job/OutputVerifier.h>
#include <qmtranscode/monitor/RunStatistics.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace android::qmmediaeditor::cli {

// Nothing where the period has no video, or no audio but silence.
struct PeriodVerification {
    struct Ssim {
        double mean = 0;
        double worst = 0;
        int64_t worstAtUs = 0;  // time of the output
    };
    std::optional<Ssim> ssim;
    std::optional<double> levelDb;    // of the output, relative to the input
    std::optional<int64_t> offsetUs;  // by which the audio is late
};

struct Verification {
    // One for each period, and for the whole output.
    std::vector<PeriodVerification> periods;
    PeriodVerification whole;
};

// The fault of the output, or what was measured. The checks are those of the same run.
std::variant<Verification, std::string> verifyEncoding(const EncodingChecks& checks,
                                                       const RunStatistics& statistics,
                                                       const OutputContents& output);

}  // namespace android::qmmediaeditor::cli
