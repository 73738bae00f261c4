// What a decoder must know of its track beyond the keys of the track's format.
//
// The extractor makes one per track and puts it into the track's format message under kKey; the
// message goes from the extractor through the component to the decoder's configure(). Without one a
// decoder works from the format's own keys.
//
// The thread that reads samples announces them here (through the extractor) and takes the notes
// again (through the decoder's queueInputBuffer).
#pragma once

#include <media/stagefright/foundation/AMessage.h>
#include <stdint.h>
#include <utils/Mutex.h>
#include <utils/RefBase.h>

#include <deque>
#include <optional>

#include "host/codec/OutputSequencer.h"
#include "host/convert/FFmpegPointers.h"

namespace android {
namespace qmmediaeditor {

// What belongs to one sample beside its bytes.
struct PacketInfo {
    // The time that the sample travels under: nothing from here on in decoding order is shown
    // before it. Reordered video comes with times that rise all the same, so that a reader which
    // stops at a time stops after every picture that belongs before it.
    int64_t timeUs = 0;
    InputSegment segment;
    // A packet without data: side data, flags, and pts, dts and duration in microseconds. Its pts
    // is when the sample is shown, which may be later than timeUs; unknown where it has to follow
    // from the dts. May be null.
    PacketPtr properties;
};

class TrackSource : public RefBase {
public:
    static constexpr const char* kKey = "track-source";

    // `parameters` is not null; its codec_id says which decoder it takes. `order` is shared by the
    // tracks of one extractor.
    TrackSource(CodecParametersPtr parameters, const sp<OutputSequencer>& sequencer);

    // The track source in `format`, or null.
    static sp<TrackSource> find(const sp<AMessage>& format);

    const AVCodecParameters& parameters() const { return *mParameters; }
    const sp<OutputSequencer>& sequencer() const { return mSequencer; }

    // How much later the track begins than the first one of its file. Set before the format goes
    // out.
    void setDelayUs(int64_t delayUs) { mDelayUs = delayUs; }
    int64_t delayUs() const { return mDelayUs; }

    // For the extractor: once for each sample of a selected track, in order, before the sample can
    // be read, with the time that getSampleTime will give. No sample that comes later, of any
    // track, is shown before that time. The sample belongs to the order's current time line.
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

    // For the decoder, before samples are queued. Who reads a file without decoding it takes no
    // notes: until then, only the last one is kept.
    void keepPacketInfo();

    // For the decoder: the note of the sample that is queued with `timeUs` now. Notes of samples
    // that were never queued are dropped on the way. Without a note, one of the current time line
    // without properties.
    PacketInfo take(int64_t timeUs);

protected:
    ~TrackSource() override;

private:
    const CodecParametersPtr mParameters;
    const sp<OutputSequencer> mSequencer;
    int64_t mDelayUs = 0;

    Mutex mLock;
    std::deque<PacketInfo> mInfos GUARDED_BY(mLock);
    bool mKeepsInfos GUARDED_BY(mLock) = false;
    Extent mExtent GUARDED_BY(mLock);
};

}  // namespace qmmediaeditor
}  // namespace android
