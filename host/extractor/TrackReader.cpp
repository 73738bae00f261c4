#include "host/extractor/TrackReader.h"

#include <android/log.h>
#include <media/stagefright/MediaErrors.h>

#include <algorithm>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr char kLogTag[] = "Extractor";
constexpr AVRational kMicroseconds = {1, 1000000};
constexpr size_t kMaxReorderDepth = 16;
constexpr int64_t kFirstStepBackUs = 500000;

}  // namespace

TrackReader::Opened TrackReader::open(const std::shared_ptr<const DescriptorFile>& file,
                                      const TrackInfo& track) {
    std::unique_ptr<TrackReader> reader(new TrackReader(file, track));
    if (reader->mPacket == nullptr) return {nullptr, NO_MEMORY};
    if (const status_t status = reader->reopen(); status != OK) return {nullptr, status};
    return {std::move(reader), OK};
}

TrackReader::TrackReader(const std::shared_ptr<const DescriptorFile>& file, const TrackInfo& track)
    : mFile(file),
      mTrack(track),
      mPacket(av_packet_alloc()),
      mPocTimestamps(track.source->parameters(),
                     track.rawIndex == nullptr ? 0 : track.rawIndex->frameTicks()) {
    if (track.rawIndex != nullptr) mRawTimestamps.emplace(track.rawIndex->frameTicks());
}

TrackReader::~TrackReader() = default;

status_t TrackReader::reopen() {
    forgetPosition();
    if (mRawTimestamps) mRawTimestamps->restart(0);
    mAtStart = true;
    mEnded = true;
    Demuxer::Opened opened = Demuxer::open(mFile, Demuxer::ProbeDepth::kHeaderIfEnough);
    mStatus = opened.status;
    mDemuxer = std::move(opened.demuxer);
    if (mDemuxer == nullptr) return mStatus;
    const AVFormatContext& context = mDemuxer->context();
    const auto index = static_cast<unsigned>(mTrack.streamIndex);
    if (index >= context.nb_streams ||
        context.streams[index]->codecpar->codec_type != mTrack.source->parameters().codec_type) {
        return mStatus = ERROR_MALFORMED;
    }
    mDemuxer->keepOnly(mTrack.streamIndex);
    if (mDemuxer->hasOnlyFrameNumbers() && !mAviTimestamps) mAviTimestamps.emplace(mTrack.gaps);
    mEnded = false;
    return OK;
}

const AVPacket* TrackReader::head() {
    if (!mHasHead && readHead()) setHeadTimestamps();
    return mHasHead ? mPacket.get() : nullptr;
}

int64_t TrackReader::durationUs() const {
    if (isLast() && mTrack.reorderDepth == 0 && mTrack.ending->endUs > mPresentationTimeUs) {
        return mTrack.ending->endUs - mPresentationTimeUs;
    }
    return std::max<int64_t>(mDemuxer->toUs(mTrack.streamIndex, mPacket->duration), 0);
}

bool TrackReader::isLast() const { return mTrack.ending && mPacket->dts == mTrack.ending->lastDts; }

PacketPtr TrackReader::headProperties(int64_t originUs) const {
    PacketPtr properties(av_packet_alloc());
    if (properties == nullptr || av_packet_copy_props(properties.get(), mPacket.get()) < 0) {
        return nullptr;
    }
    properties->time_base = kMicroseconds;
    properties->duration = durationUs();
    properties->pts = mIsTimeStated ? mPresentationTimeUs - originUs : AV_NOPTS_VALUE;
    // Where packets may lack a presentation timestamp, libavcodec derives it from the decoding
    // timestamp of the packet that makes the decoder output the frame.
    const bool needsDts =
        mTrack.isVideo && !mDemuxer->headerIsEnough() && mPacket->dts != AV_NOPTS_VALUE;
    properties->dts = needsDts ? toUs(mPacket->dts - reorderTicks()) - originUs : AV_NOPTS_VALUE;
    return properties;
}

int64_t TrackReader::toUs(int64_t time) const {
    return mDemuxer->toUs(mTrack.streamIndex, time) + mOffsetUs;
}

void TrackReader::trackDiscontinuities() {
    if (mTrack.discontinuities == nullptr || mPacket->dts == AV_NOPTS_VALUE || mPacket->pos < 0)
        return;
    const int64_t dtsUs = mDemuxer->toUs(mTrack.streamIndex, mPacket->dts);
    mIsBehindDiscontinuity =
        mHasPrevious && TimestampDiscontinuities::isDiscontinuity(dtsUs - mPreviousDtsUs,
                                                                  mPacket->pos - mPreviousPosition);
    if (!mHasPrevious) {
        mOffsetUs = mTrack.discontinuities->offsetUsAt(mPacket->pos);
    } else if (mIsBehindDiscontinuity) {
        mOffsetUs = mTrack.discontinuities->offsetUs(mTrack.streamIndex, mPacket->pos, dtsUs,
                                                     mPreviousEndUs + mOffsetUs);
    } else {
        mPreviousStepUs = std::max<int64_t>(dtsUs - mPreviousDtsUs, 0);
    }
    mHasPrevious = true;
    mPreviousDtsUs = dtsUs;
    // Some streams have no durations. Without one, two frames at a discontinuity would get the same
    // timestamp.
    mPreviousEndUs = dtsUs + (durationUs() > 0 ? durationUs() : mPreviousStepUs);
    mPreviousPosition = mPacket->pos;
}

void TrackReader::advance() {
    if (mHasHead) mNextTimeUs = mPresentationTimeUs + durationUs();
    mHasHead = false;
}

bool TrackReader::readHead() {
    if (mEnded) return false;
    mAtStart = false;
    while ((mStatus = mDemuxer->readPacket(mTrack.streamIndex, mPacket.get())) == OK) {
        if (mRawTimestamps) mRawTimestamps->stamp(mPacket.get());
        if (mAviTimestamps) {
            mAviTimestamps->correct(*mDemuxer->context().streams[mTrack.streamIndex],
                                    mPacket.get());
        }
        // A larger packet does not fit the clients' buffers, which have the size that the track's
        // format announced.
        if (static_cast<size_t>(mPacket->size) <= mTrack.maxSampleBytes) return mHasHead = true;
        __android_log_print(ANDROID_LOG_WARN, kLogTag, "track %d: a sample of %d bytes is skipped",
                            mTrack.streamIndex, mPacket->size);
    }
    mEnded = true;
    if (mStatus == ERROR_END_OF_STREAM) mStatus = OK;
    return false;
}

void TrackReader::setHeadTimestamps() {
    trackDiscontinuities();
    const int64_t time = statedTimestamp();
    mIsTimeStated = time != AV_NOPTS_VALUE || mPacket->dts == AV_NOPTS_VALUE;
    if (time != AV_NOPTS_VALUE) {
        mPresentationTimeUs = toUs(time);
    } else {
        mPresentationTimeUs = mIsTimeStated ? mNextTimeUs : toUs(mPacket->dts - reorderTicks());
    }
    if (!mTrack.isVideo) {
        mOrderTimeUs = mPresentationTimeUs;
        return;
    }
    if (mTrack.constantRate.has_value())
        mPresentationTimeUs = mTrack.constantRate->snap(mPresentationTimeUs);
    updateOrderTime();
}

int64_t TrackReader::statedTimestamp() {
    const bool isKnown = mPacket->pts != AV_NOPTS_VALUE && reorderTicks() == 0;
    if (isKnown) return mPacket->pts;
    return mTrack.isVideo ? mPocTimestamps.presentationTime(*mPacket) : mPacket->dts;
}

// The distance in ticks from a frame's packet to the packet that makes the decoder output the
// frame.
int64_t TrackReader::reorderTicks() const {
    const int64_t delay = mTrack.source->parameters().video_delay;
    if (mTrack.rawIndex != nullptr) return delay * mTrack.rawIndex->frameTicks();
    return mTrack.isVideo && mDemuxer->hasOnlyFrameNumbers() ? delay : 0;
}

// At most reorderDepth frames precede a frame in decoding order and follow it in presentation
// order. So no timestamp that follows is earlier than the minimum of the reorderDepth + 1 latest
// ones. Leading frames of the first frame after a seek do not count, because they refer to frames
// that were not read and are therefore not shown.
void TrackReader::updateOrderTime() {
    if (mLatestTimesUs.empty()) {
        mFirstTimeUs = mOrderTimeUs = mPresentationTimeUs;
    } else if (mPresentationTimeUs < mFirstTimeUs) {
        return;
    } else if (mPresentationTimeUs < mOrderTimeUs && mTrack.reorderDepth < kMaxReorderDepth) {
        ++mTrack.reorderDepth;
    }
    mLatestTimesUs.insert(
        std::upper_bound(mLatestTimesUs.begin(), mLatestTimesUs.end(), mPresentationTimeUs),
        mPresentationTimeUs);
    if (mLatestTimesUs.size() > mTrack.reorderDepth + 1)
        mLatestTimesUs.erase(mLatestTimesUs.begin());
    mOrderTimeUs = std::max(mOrderTimeUs, mLatestTimesUs.front());
}

void TrackReader::forgetPosition() {
    mHasHead = false;
    mHasPrevious = false;
    mOffsetUs = 0;
    mNextTimeUs = mTrack.startUs;
    mLatestTimesUs.clear();
    mPocTimestamps.restart();
    if (mAviTimestamps) mAviTimestamps->restart();
}

void TrackReader::seek(int64_t timeUs) {
    if (mTrack.rawIndex != nullptr) return seekRawVideo(timeUs);
    const int64_t targetUs = timeUs - mTrack.prerollUs;
    int64_t stepUs = kFirstStepBackUs;
    // Indexes are inexact or missing, so each try checks the position that the demuxer has reached.
    for (int64_t soughtUs = targetUs; soughtUs > mTrack.startUs; soughtUs -= stepUs, stepUs *= 2) {
        if (!seekDemuxer(soughtUs)) break;
        if (!landsBy(targetUs)) continue;
        skipAudioBefore(targetUs);
        return;
    }
    // The beginning has samples that are not in the index, such as a codec's priming.
    if (!mAtStart) reopen();
    if (targetUs > mTrack.startUs) skipAudioBefore(targetUs);
}

void TrackReader::seekRawVideo(int64_t timeUs) {
    if (mDemuxer != nullptr) {
        AVFormatContext& context = mDemuxer->context();
        const AVStream& stream = *context.streams[mTrack.streamIndex];
        const auto point =
            mTrack.rawIndex->seekPointBefore(av_rescale_q(timeUs, kMicroseconds, stream.time_base));
        forgetPosition();
        if (point &&
            av_seek_frame(&context, stream.index, point->position, AVSEEK_FLAG_BYTE) >= 0) {
            mRawTimestamps->restart(point->dts);
            mAtStart = mEnded = false;
            mStatus = OK;
            return;
        }
    }
    if (!mAtStart) reopen();
}

bool TrackReader::seekDemuxer(int64_t timeUs) {
    if (mDemuxer == nullptr) return false;
    AVFormatContext& context = mDemuxer->context();
    const AVRational timeBase = context.streams[mTrack.seekStreamIndex]->time_base;
    const int64_t time = av_rescale_q_rnd(timeUs, kMicroseconds, timeBase, AV_ROUND_DOWN);
    forgetPosition();
    mAtStart = mEnded = false;
    mStatus = OK;
    return av_seek_frame(&context, mTrack.seekStreamIndex, time, AVSEEK_FLAG_BACKWARD) >= 0;
}

// Reads on to the first sample that can be decoded by itself. True when it is at or before
// `timeUs`.
bool TrackReader::landsBy(int64_t timeUs) {
    while (readHead()) {
        if (!mTrack.isVideo || (mPacket->flags & AV_PKT_FLAG_KEY) != 0) {
            setHeadTimestamps();
            return mPresentationTimeUs <= timeUs;
        }
        mHasHead = false;
    }
    return false;
}

void TrackReader::skipAudioBefore(int64_t timeUs) {
    if (mTrack.isVideo) return;
    while (head() != nullptr && mPresentationTimeUs + durationUs() <= timeUs) advance();
}

}  // namespace qmmediaeditor
}  // namespace android
