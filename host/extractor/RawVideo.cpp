#include "host/extractor/RawVideo.h"

#include <media/stagefright/MediaErrors.h>

#include <algorithm>

#include "host/extractor/Demuxer.h"
#include "host/extractor/TimestampRepair.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/common.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr AVRational kDefaultRate = {25, 1};
// As many as the frame rate is estimated from.
constexpr size_t kFirstTimes = 120;

// For packets without a duration.
int64_t defaultFrameTicks(const AVStream& stream) {
    const AVRational stated = stream.r_frame_rate;
    const AVRational rate = stated.num > 0 && stated.den > 0 ? stated : kDefaultRate;
    return std::max<int64_t>(av_rescale_q(1, av_inv_q(rate), stream.time_base), 1);
}

}  // namespace

void RawVideoTimestamps::stamp(AVPacket* packet) {
    if (packet->duration <= 0) packet->duration = mFrameTicks;
    packet->dts = mNextDts;
    packet->pts = AV_NOPTS_VALUE;
    mNextDts = av_sat_add64(mNextDts, packet->duration);
}

RawVideoIndex::Made RawVideoIndex::make(const std::shared_ptr<const DescriptorFile>& file) {
    const Demuxer::Opened opened = Demuxer::open(file, Demuxer::ProbeDepth::kStreams);
    if (opened.demuxer == nullptr) return {nullptr, opened.status};
    const AVStream& stream = *opened.demuxer->context().streams[0];
    std::shared_ptr<RawVideoIndex> index(new RawVideoIndex);
    RawVideoTimestamps timestamps(defaultFrameTicks(stream));
    PocTimestamps pocTimestamps(*stream.codecpar);
    PacketPtr packet(av_packet_alloc());
    if (packet == nullptr) return {nullptr, NO_MEMORY};
    status_t status = OK;
    while ((status = opened.demuxer->readPacket(stream.index, packet.get())) == OK) {
        timestamps.stamp(packet.get());
        if (index->mFirstTimes.size() < kFirstTimes) index->mFirstTimes.push_back(packet->dts);
        pocTimestamps.presentationTime(*packet);
        if (index->mFrameTicks == 0) {
            index->mFrameTicks = packet->duration * (pocTimestamps.isField() ? 2 : 1);
        }
        // Behind another key frame, presentation timestamps of AVC and HEVC would be unknown.
        const bool isUsable =
            !pocTimestamps.isForThisCodec() || pocTimestamps.isAtSequenceStart(*packet);
        if ((packet->flags & AV_PKT_FLAG_KEY) == 0 || !isUsable) continue;
        index->mKeyFrames.push_back({packet->dts, packet->pos});
    }
    if (status != ERROR_END_OF_STREAM) return {nullptr, status};
    index->mDurationTicks = timestamps.nextDts();
    return {index, OK};
}

// The frames behind a key frame that are shown before it may refer to frames before it. All of them
// precede the next key frame. So the last key frame but one suits every later time.
std::optional<RawVideoIndex::SeekPoint> RawVideoIndex::seekPointBefore(int64_t time) const {
    const auto next =
        std::upper_bound(mKeyFrames.begin(), mKeyFrames.end(), time,
                         [](int64_t wanted, const SeekPoint& point) { return wanted < point.dts; });
    if (next - mKeyFrames.begin() < 2) return std::nullopt;
    const SeekPoint& point = *(next - 2);
    if (point.position <= 0) return std::nullopt;
    return point;
}

}  // namespace qmmediaeditor
}  // namespace android
