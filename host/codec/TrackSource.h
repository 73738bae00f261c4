// A track as its decoder needs it beyond the keys of the track's format.
//
// The extractor makes one per track and puts it into the track's format message under kKey; the
// message goes from the extractor through the component to the decoder's configure(). Without one a
// decoder works from the format's own keys.
//
// The thread that reads samples announces them here (through the extractor) and takes their
// PacketInfo back (through the decoder's queueInputBuffer).
#pragma once

#include <media/stagefright/foundation/AMessage.h>
#include <stdint.h>
#include <utils/Mutex.h>
#include <utils/RefBase.h>

#include <deque>
#include <optional>

#include "host/codec/FrameRate.h"
#include "host/codec/OutputSequencer.h"
#include "host/convert/FFmpegPointers.h"

namespace android {
namespace qmmediaeditor {

// Properties of one sample beside its bytes.
struct PacketInfo {
    // The sample's timestamp in the component: no sample from here on in decoding order is shown
    // before it. It rises for reordered video, too, so that a reader which stops at a timestamp has
    // read every frame before it.
    int64_t timeUs = 0;
    InputSegment segment;
    // A packet without data: side data, flags, and pts, dts and duration in microseconds. Its pts
    // is the presentation timestamp, which may be later than timeUs; unknown where it has to follow
    // from the dts. May be null.
    PacketPtr properties;
};

class TrackSource : public RefBase {
public:
    static constexpr const char* kKey = "track-source";

    // `parameters` is not null; its codec_id says which decoder it takes. `sequencer` is shared by
    // the tracks of one extractor.
    TrackSource(CodecParametersPtr parameters, const sp<OutputSequencer>& sequencer);

    // The track source in `format`, or null.
    static sp<TrackSource> find(const sp<AMessage>& format);

    const AVCodecParameters& parameters() const { return *mParameters; }
    const sp<OutputSequencer>& sequencer() const { return mSequencer; }

    // How much later the track begins than the first one of its file. Set before the format is
    // passed on.
    void setDelayUs(int64_t delayUs) { mDelayUs = delayUs; }
    int64_t delayUs() const { return mDelayUs; }

    // Of video with a constant frame rate. Set before the format is passed on.
    void setFrameRate(const FrameRate& rate) { mFrameRate = rate; }
    const std::optional<FrameRate>& frameRate() const { return mFrameRate; }

    // For the extractor: once for each sample of a selected track, in order, before the sample can
    // be read, with the timestamp that getSampleTime will return. No later sample of any track is
    // shown before it. The sample belongs to the sequencer's current segment.
    void announce(int64_t timeUs, PacketPtr properties);

    // For the extractor: frames or audio that are shown at `timeUs` or later follow in the file.
    void advanceTo(int64_t timeUs);
    // For the extractor, with the last sample or before it: when the track ends.
    void setEnd(int64_t endUs);
    // For the decoder, at the end of stream.
    struct Extent {
        int64_t continuesAtUs = INT64_MIN;  // the latest time given to advanceTo
        std::optional<int64_t> endUs;
    };
    Extent extent();

    // For the decoder, before samples are queued. A client that reads a file without decoding it
    // takes none: until then, only the last one is kept.
    void keepPacketInfo();

    // For the decoder: the info of the sample that is now queued with `timeUs`. Infos of samples
    // that were never queued are dropped. When there is none, one of the current segment without
    // properties.
    PacketInfo take(int64_t timeUs);

protected:
    ~TrackSource() override;

private:
    const CodecParametersPtr mParameters;
    const sp<OutputSequencer> mSequencer;
    int64_t mDelayUs = 0;
    std::optional<FrameRate> mFrameRate;

    Mutex mLock;
    std::deque<PacketInfo> mInfos GUARDED_BY(mLock);
    bool mKeepsInfos GUARDED_BY(mLock) = false;
    Extent mExtent GUARDED_BY(mLock);
};

}  // namespace qmmediaeditor
}  // namespace android
