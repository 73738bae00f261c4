// What the stress tests share: kinds of runs, and numbers from the environment.
#pragma once

#include <stdint.h>
#include <stdlib.h>
#include <support/SessionRun.h>

#include <string>
#include <vector>

namespace android::qmmediaeditor {

struct RunKind {
    const char* name;
    const char* clip;
    std::vector<TrimPeriod> periods;
};

inline const std::vector<RunKind>& runKinds() {
    static const std::vector<TrimPeriod> kTwoPeriods = {{2000000, 4500000}, {6000000, 8000000}};
    static const std::vector<RunKind> kKinds = {
        {"both", "steps.mp4", {}},  {"both, trimmed", "steps.mp4", kTwoPeriods},
        {"audio", "audio.m4a", {}}, {"audio, trimmed", "audio.m4a", kTwoPeriods},
        {"video", "video.mp4", {}}, {"video, trimmed", "video.mp4", kTwoPeriods},
        {"720p", "plain.mp4", {}},  {"720p, trimmed", "plain.mp4", kTwoPeriods},
    };
    return kKinds;
}

inline std::string clipPath(const RunKind& kind) {
    return std::string(QM_CLIPS_DIR "/") + kind.clip;
}

inline uint64_t numberFromEnvironment(const char* name, uint64_t otherwise) {
    const char* text = getenv(name);
    return text == nullptr ? otherwise : strtoull(text, nullptr, 10);
}

}  // namespace android::qmmediaeditor
