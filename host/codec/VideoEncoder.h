// Encodes working frames to AVC, MPEG-4 or H.263, without reordering.
//
// The encoder reads the input buffers, or the decoded frames that these refer to, without a copy. A
// frame with an odd width or height loses its last column or row.
#pragma once

#include <host/Host.h>
#include <stdint.h>

#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "host/codec/CodecBackend.h"
#include "host/codec/CodecTable.h"
#include "host/codec/EncodedVideoCheck.h"
#include "host/codec/PacketCodecs.h"
#include "host/codec/SessionTimeline.h"
#include "host/convert/ZimgGraph.h"
#include "host/foundation/FrameAllocator.h"

namespace android {
namespace qmmediaeditor {

class VideoEncoder : public CodecBackend {
public:
    // `session` may be null.
    VideoEncoder(const HostOptions& options, std::shared_ptr<SessionTimeline> session);
    ~VideoEncoder() override;

    status_t configure(const sp<AMessage>& format, CodecBuffers* buffers) override;
    sp<AMessage> outputFormat() const override { return mFormat; }
    Step produce(CodecOutput* output) override;
    status_t accept(CodecInput input) override;
    status_t finish() override;

private:
    struct Settings;

    // The timestamp of an input, in the encoder's time base and in microseconds.
    struct Timestamp {
        int64_t pts;
        int64_t timeUs;
    };

    void setParameters(const Settings& settings);
    void setBitRate(const Settings& settings);
    bool hasConstantQuality() const;
    // The constant rate of the input, unless frames are to be left out.
    std::optional<FrameRate> inputRate(const Settings& settings) const;
    FrameRate frameRateOf(const Settings& settings) const;
    VideoDemand demandOf(const Settings& settings) const;
    // False when memory is short.
    bool setAvcOptions(const Settings& settings, AVDictionary** options) const;
    Timestamp timestampOf(int64_t timeUs);
    int64_t timeOf(int64_t pts);
    bool isKeyFrameDue(int64_t timeUs);
    FramePlanes inputPlanes(uint8_t* data) const;
    // Adds the frame to the check; `owner` is null if it is in an input buffer. False when memory
    // is short.
    bool addToCheck(const AVFrame& frame, sp<RefBase> owner, int64_t timeUs);

    const HostOptions mOptions;
    const int mThreads;
    const std::shared_ptr<SessionTimeline> mSession;
    PacketEncoder mEncoder;
    const FrameAllocator::Keep mKeepMemory;
    const FramePtr mFrame;
    sp<AMessage> mFormat;
    sp<ABuffer> mCodecSpecificData;  // until it has been output
    int mWidth = 0;                  // of the input
    int mHeight = 0;

    std::deque<Timestamp> mPending;
    Timestamp mLast;
    int64_t mKeyFrameIntervalUs = 0;  // 0 for no interval
    // A key frame is asked for at the end of an interval that lacks frames.
    std::optional<int64_t> mIntervalStartUs;
    int mIntervalFrames = 0;
    // Null unless the options ask for it.
    std::unique_ptr<EncodedVideoCheck> mCheck;
    // HostOptions::keyFrameUs, until that frame has come.
    std::optional<int64_t> mAskedKeyFrameUs;
};

}  // namespace qmmediaeditor
}  // namespace android
