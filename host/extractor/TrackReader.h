// Reads the samples of one track in decoding order. Private to the extractor.
//
// Each selected track has a reader with a demuxer of its own, so that tracks that are far apart in
// the file need no memory. One thread at a time. All timestamps are microseconds in the file's
// time.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <vector>

#include "host/convert/FFmpegPointers.h"
#include "host/extractor/Demuxer.h"
#include "host/extractor/InputProbe.h"
#include "host/extractor/TimestampRepair.h"

namespace android {
namespace qmmediaeditor {

class TrackReader {
public:
    struct Opened {
        std::unique_ptr<TrackReader> reader;  // null unless status is OK
        status_t status;
    };
    static Opened open(const std::shared_ptr<const DescriptorFile>& file, const TrackInfo& track);
    ~TrackReader();

    // The next sample; null at the end and after a failure.
    const AVPacket* head();
    // OK, ERROR_IO when the file cannot be read, or NO_MEMORY. NO_MEMORY lasts until the next seek,
    // ERROR_IO for ever.
    status_t status() const { return mStatus; }
    // No sample from the head on is shown before this timestamp. For audio, it is the presentation
    // timestamp of the head.
    int64_t orderTimeUs() const { return mOrderTimeUs; }
    int64_t presentationTimeUs() const { return mPresentationTimeUs; }
    // The head is the first sample behind a discontinuity.
    bool isBehindDiscontinuity() const { return mIsBehindDiscontinuity; }
    // Side data, flags and timestamps of the head for its decoder, in microseconds from `originUs`.
    // Null when memory is short.
    PacketPtr headProperties(int64_t originUs) const;
    // Of the head; 0 when it is not known.
    int64_t durationUs() const;
    // The head is the last sample of its track. False where the container does not say.
    bool isLast() const;
    void advance();

    // Makes the head the last sync sample that the file's index has at or before `timeUs`, or an
    // earlier one; for audio, the sample at `timeUs` minus the decoder's preroll. Where there is
    // none, the first sample of the track.
    void seek(int64_t timeUs);

private:
    TrackReader(const std::shared_ptr<const DescriptorFile>& file, const TrackInfo& track);
    status_t reopen();
    bool readHead();
    void setHeadTimestamps();
    int64_t statedTimestamp();
    int64_t reorderTicks() const;
    // Of the head, with discontinuities removed.
    int64_t toUs(int64_t time) const;
    void trackDiscontinuities();
    void updateOrderTime();
    void forgetPosition();

    void seekRawVideo(int64_t timeUs);
    bool seekDemuxer(int64_t timeUs);
    bool landsBy(int64_t timeUs);
    void skipAudioBefore(int64_t timeUs);

    const std::shared_ptr<const DescriptorFile> mFile;
    TrackInfo mTrack;
    std::unique_ptr<Demuxer> mDemuxer;
    PacketPtr mPacket;
    bool mHasHead = false;
    bool mAtStart = true;  // nothing has been read since the file was opened
    bool mEnded = false;   // no sample follows until the next seek
    status_t mStatus = OK;
    // Of the head; a lower bound when the container does not state it.
    int64_t mPresentationTimeUs = 0;
    bool mIsTimeStated = false;
    int64_t mOrderTimeUs = 0;
    bool mIsBehindDiscontinuity = false;
    // The offset of discontinuities so far.
    int64_t mOffsetUs = 0;
    // Of the packet before the head, when there is one.
    bool mHasPrevious = false;
    int64_t mPreviousDtsUs = 0;
    int64_t mPreviousEndUs = 0;
    int64_t mPreviousStepUs = 0;  // the latest distance of two packets
    int64_t mPreviousPosition = 0;
    int64_t mFirstTimeUs = 0;  // of the first frame since the last seek
    int64_t mNextTimeUs = 0;   // end of the last sample, for one without a timestamp
    // The latest presentation timestamps that were read, rising: mTrack.reorderDepth + 1 of them.
    std::vector<int64_t> mLatestTimesUs;
    // For video without a container.
    std::optional<RawVideoTimestamps> mRawTimestamps;
    // For a container with frame numbers only.
    std::optional<AviTimestamps> mAviTimestamps;
    // For video in a container that states decoding times alone.
    PocTimestamps mPocTimestamps;
};

}  // namespace qmmediaeditor
}  // namespace android
