// The numbers of a run, from the facts that the host reports.
#pragma once

#include <TranscodeTypes.h>
#include <host/Host.h>
#include <stdint.h>
#include <utils/Mutex.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

struct PeriodStatistics {
    // Where the period is in the output.
    int64_t startUs = 0;
    int64_t endUs = 0;
    // Frames that were left out because of the output's frame rate.
    int64_t dropped = 0;
    // The audio that was taken from it, in output time; nothing without audio.
    std::optional<int64_t> audioStartUs;
    int64_t audioEndUs = 0;
    // How much later than its video the period's audio is played; negative when it is earlier.
    int64_t skewUs = 0;
};

// Follows the session: which frames and which audio it keeps, and where they are in the output.
class RunStatistics {
public:
    RunStatistics() : RunStatistics(std::vector<TrimPeriod>()) {}
    // Without periods, the whole input is one.
    explicit RunStatistics(const std::vector<TrimPeriod>& periods);

    // Of the input, in the order in which the session takes them from its decoders.
    void addFrame(int64_t timeUs);
    void addAudio(int64_t timeUs, int64_t samples, int sampleRate);

    // With the frames that the encoder has accepted, in time of the output. A frame that follows an
    // encoded one by less than a frame of `frameRate` was left out because of that rate; 0 allows
    // every distance.
    void compareWith(const std::vector<int64_t>& encodedUs, int frameRate);

    int64_t dropped() const;

    std::vector<PeriodStatistics> periods;
    // Frames of the periods that should have reached the encoder. After a stop, some have not.
    int64_t framesDue = 0;

private:
    // The time in the output of what begins at this time of the input; nothing outside of the
    // periods.
    std::optional<int64_t> keep(int64_t timeUs);
    int64_t audioLengthUs(int64_t samples) const;

    struct Frame {
        int64_t timeUs;  // of the output
        size_t period;
    };
    std::vector<TrimPeriod> mKept;
    size_t mCurrent = 0;  // of `periods`
    std::vector<Frame> mFrames;
    int64_t mSamples = 0;
    int mSampleRate = 0;
};

// The codecs of a track; names are empty and the format is null without the track.
struct TrackCodecs {
    std::string decoder;
    std::string encoder;
    // The settings of the encoder, under the platform's keys.
    sp<AMessage> format;
    // Packets that could not be decoded.
    int64_t skippedPackets = 0;
    // Of the input's frames in the periods.
    int64_t interlacedFrames = 0;
    int64_t deinterlacedFrames = 0;
    // Why interlaced frames could not be deinterlaced, if so.
    std::optional<std::string> deinterlacingFailure;
};

struct ReadError {
    int error = 0;  // errno; ESTALE when the file has become shorter
    int64_t offsetBytes = 0;
};

// The findings of HostOptions::checksEncoding; in the order of the output.
struct EncodingChecks {
    struct Packet {
        int64_t timeUs = 0;
        uint64_t checksum = 0;
    };

    std::vector<FrameCheck> frames;
    std::vector<AudioCheck> audio;
    std::vector<Packet> videoPackets;
    std::vector<Packet> audioPackets;
    // Why something could not be checked.
    std::optional<std::string> failure;
};

// Collects what the host reports beside the session's result. Any thread may call any operation.
class RunObserver : public HostObserver {
public:
    void onReadError(int error, int64_t offsetBytes) override;
    void onWriteError(int error) override;
    void onRefused(const std::string& reason) override;
    void onDiscontinuity() override;
    void onDecoderOpened(bool isVideo, const std::string& name) override;
    void onEncoderOpened(bool isVideo, const std::string& name,
                         const sp<AMessage>& format) override;
    void onFrameDecoded(int64_t timeUs) override;
    void onAudioDecoded(int64_t timeUs, int64_t samplesPerChannel, int sampleRate) override;
    void onPacketSkipped(bool isVideo) override;
    void onInterlacedFrame(bool wasDeinterlaced) override;
    void onDeinterlacingFailed(const std::string& reason) override;
    void onFirstSample() override;
    void onFrameEncoded(int64_t timeUs) override;
    void onAudioEncoded(int64_t samples, int sampleRate) override;
    void onPacketEncoded(bool isVideo, int64_t timeUs, uint64_t checksum) override;
    void onFrameChecked(const FrameCheck& frame) override;
    void onAudioChecked(const AudioCheck& audio) override;
    void onCheckFailed(const std::string& reason) override;
    void onTrackStart(bool isVideo, int64_t timeUs) override;
    void onVideoEnd(int64_t timeUs) override;

    // The first one since the command began.
    std::optional<ReadError> readError() const;
    // Why the input was refused; the first reason since the command began.
    std::optional<std::string> refusal() const;
    bool hasDiscontinuity() const;
    // errno of the first write error since begin().
    std::optional<int> writeError() const;

    // Forgets the previous run. `periods` are those of the session. `onFirstSample` is called on a
    // thread of the host when the output gets its first sample.
    void begin(const std::vector<TrimPeriod>& periods, std::function<void()> onFirstSample);

    // Of the run, when it has ended.
    RunStatistics statistics() const;

    TrackCodecs video() const;
    TrackCodecs audio() const;

    // Timestamps of the frames that the video encoder has accepted, in microseconds of the output.
    std::vector<int64_t> framesUs() const;
    struct Position {
        int64_t frames;
        int64_t timeUs;  // of the last frame; without video, the length of the audio
    };
    // How far the encoders are.
    Position position() const;
    // Length of the audio that the audio encoder has accepted.
    int64_t audioUs() const;
    // When the output's first sample of the video or the audio begins; negative for the priming of
    // an encoder.
    int64_t trackStartUs(bool isVideo) const;
    // The end of the last video frame of the output.
    std::optional<int64_t> videoEndUs() const;
    EncodingChecks checks() const;

private:
    int64_t audioUsLocked() const REQUIRES(mLock);

    mutable Mutex mLock;
    std::function<void()> mOnFirstSample GUARDED_BY(mLock);
    std::optional<ReadError> mReadError GUARDED_BY(mLock);
    std::optional<std::string> mRefusal GUARDED_BY(mLock);
    bool mHasDiscontinuity GUARDED_BY(mLock) = false;
    std::optional<int> mWriteError GUARDED_BY(mLock);
    RunStatistics mStatistics GUARDED_BY(mLock);
    TrackCodecs mVideo GUARDED_BY(mLock);
    TrackCodecs mAudio GUARDED_BY(mLock);
    std::vector<int64_t> mFramesUs GUARDED_BY(mLock);
    int64_t mAudioSamples GUARDED_BY(mLock) = 0;
    int mAudioRate GUARDED_BY(mLock) = 0;
    int64_t mTrackStartsUs[2] GUARDED_BY(mLock) = {0, 0};  // audio, video
    std::optional<int64_t> mVideoEndUs GUARDED_BY(mLock);
    EncodingChecks mChecks GUARDED_BY(mLock);
};

}  // namespace android::qmmediaeditor::cli
