// Facts about a run that the host reports beside the session's result. Any thread may call any
// operation.
#pragma once

#include <host/Host.h>
#include <stdint.h>
#include <utils/Mutex.h>

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

struct ReadError {
    int error = 0;  // errno; ESTALE when the file has become shorter
    int64_t offsetBytes = 0;
};

class RunFacts : public HostObserver {
public:
    void onReadError(int error, int64_t offsetBytes) override;
    void onWriteError(int error) override;
    void onRefused(const std::string& reason) override;
    void onFirstSample() override;
    void onFrameEncoded(int64_t timeUs) override;
    void onAudioEncoded(int64_t samples, int sampleRate) override;
    void onVideoEnd(int64_t timeUs) override;

    // The first one since the command began.
    std::optional<ReadError> readError() const;
    // Why the input was refused; the first reason since the command began.
    std::optional<std::string> refusal() const;
    // errno of the first write error since begin().
    std::optional<int> writeError() const;

    // Forgets the run before. `firstSample` is called on a thread of the host when the output gets
    // its first sample.
    void begin(std::function<void()> firstSample);

    // Timestamps of the frames that the video encoder has accepted, in microseconds of the output.
    std::vector<int64_t> framesUs() const;
    // Length of the audio that the audio encoder has accepted.
    int64_t audioUs() const;
    // Where the last video frame of the output ends.
    std::optional<int64_t> videoEndUs() const;

private:
    mutable Mutex mLock;
    std::function<void()> mFirstSample GUARDED_BY(mLock);
    std::optional<ReadError> mReadError GUARDED_BY(mLock);
    std::optional<std::string> mRefusal GUARDED_BY(mLock);
    std::optional<int> mWriteError GUARDED_BY(mLock);
    std::vector<int64_t> mFramesUs GUARDED_BY(mLock);
    int64_t mAudioSamples GUARDED_BY(mLock) = 0;
    int mAudioRate GUARDED_BY(mLock) = 0;
    std::optional<int64_t> mVideoEndUs GUARDED_BY(mLock);
};

}  // namespace android::qmmediaeditor::cli
