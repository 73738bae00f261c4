#include "host/extractor/AviTimestamps.h"

#include <media/stagefright/MediaErrors.h>
#include <string.h>

#include <algorithm>

#include "host/extractor/Demuxer.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr AVRational kMicroseconds = {1, 1000000};
constexpr int64_t kHeaderBytes = 8;
// Less is padding, or one packet.
constexpr int64_t kMinGapBytes = 4096;

uint32_t little32(const uint8_t* data) {
    return data[0] | uint32_t{data[1]} << 8 | uint32_t{data[2]} << 16 | uint32_t{data[3]} << 24;
}

// The first position from `position` on that no chunk without media covers.
int64_t skipOtherChunks(const DescriptorFile& file, int64_t position, int64_t end) {
    position += position % 2;
    uint8_t header[kHeaderBytes];
    while (position < end && file.readFully(position, header, sizeof(header))) {
        const bool isList = memcmp(header, "LIST", 4) == 0 || memcmp(header, "RIFF", 4) == 0;
        const bool isOther = memcmp(header, "JUNK", 4) == 0 || memcmp(header, "idx1", 4) == 0 ||
                             memcmp(header, "ix", 2) == 0;
        if (!isList && !isOther) break;
        // Lists are entered.
        const int64_t bytes = isList ? 4 : little32(header + 4);
        position += kHeaderBytes + bytes + bytes % 2;
    }
    return position;
}

// The file is as long as its header says.
bool isWhole(const DescriptorFile& file) {
    uint8_t header[kHeaderBytes];
    return file.readFully(0, header, sizeof(header)) &&
           kHeaderBytes + int64_t{little32(header + 4)} <= file.sizeBytes();
}

bool hasIndex(const std::shared_ptr<const DescriptorFile>& file) {
    const auto demuxer = Demuxer::open(file, Demuxer::ProbeDepth::kHeader).demuxer;
    if (demuxer == nullptr) return true;
    const AVFormatContext& context = demuxer->context();
    return std::any_of(context.streams, context.streams + context.nb_streams,
                       [](AVStream* each) { return avformat_index_get_entries_count(each) > 0; });
}

// The stream whose length says how much was lost: the first video, or else the first one.
int referenceStream(const AVFormatContext& context) {
    for (unsigned i = 0; i < context.nb_streams; ++i) {
        if (context.streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
            return static_cast<int>(i);
        }
    }
    return 0;
}

// Timestamps in the index of a stream with samples of constant size are byte numbers.
int64_t ticksPerEntryUnit(const AVStream& stream) {
    if (avformat_index_get_entries_count(const_cast<AVStream*>(&stream)) < 2) return 1;
    const AVIndexEntry* first = avformat_index_get_entry(const_cast<AVStream*>(&stream), 0);
    const int64_t step =
        avformat_index_get_entry(const_cast<AVStream*>(&stream), 1)->timestamp - first->timestamp;
    const int blockBytes = stream.codecpar->block_align;
    const bool countsBytes = step == first->size && blockBytes > 0;
    return countsBytes ? blockBytes : 1;
}

}  // namespace

AviTimestamps::Gaps AviTimestamps::findGaps(const std::shared_ptr<const DescriptorFile>& file) {
    if (hasIndex(file)) return {{}, file->status() == OK ? status_t{OK} : status_t{ERROR_IO}};
    const Demuxer::Opened opened = Demuxer::open(file, Demuxer::ProbeDepth::kStreams);
    if (opened.demuxer == nullptr) return {{}, opened.status};
    AVFormatContext& context = opened.demuxer->context();
    const int reference = referenceStream(context);
    PacketPtr packet(av_packet_alloc());
    if (packet == nullptr) return {{}, NO_MEMORY};
    Gaps found = {{}, OK};
    std::vector<int64_t> lostBytes;
    int64_t allLostBytes = 0;
    int64_t goodBytes = 0;
    int64_t foundUs = 0;
    int64_t end = 0;
    while ((found.status = opened.demuxer->readPacket(Demuxer::kAnyStream, packet.get())) == OK) {
        if (packet->stream_index == reference && packet->dts != AV_NOPTS_VALUE) {
            foundUs = opened.demuxer->toUs(reference, packet->dts + packet->duration);
        }
        goodBytes += packet->size;
        if (packet->pos < 0) continue;
        const int64_t start = packet->pos - kHeaderBytes;
        if (end > 0 && start - end > kMinGapBytes) {
            const int64_t bytes = start - skipOtherChunks(*file, end, start);
            if (bytes > kMinGapBytes) {
                found.gaps.push_back({start, 0});
                lostBytes.push_back(bytes);
                allLostBytes += bytes;
            }
        }
        end = std::max(end, packet->pos + packet->size);
    }
    if (found.status != ERROR_END_OF_STREAM) return found;
    found.status = file->status() == OK ? status_t{OK} : status_t{ERROR_IO};
    if (found.gaps.empty() || goodBytes == 0) return found;
    // Exact where the header states the length and nothing is missing at the end.
    const AVStream& stream = *context.streams[reference];
    const int64_t statedUs =
        stream.duration == AV_NOPTS_VALUE ? 0 : opened.demuxer->toUs(reference, stream.duration);
    const int64_t allLostUs = statedUs > foundUs && isWhole(*file)
                                  ? statedUs - foundUs
                                  : av_rescale(foundUs, allLostBytes, goodBytes);
    for (size_t i = 0; i < found.gaps.size(); ++i) {
        found.gaps[i].lostUs = av_rescale(allLostUs, lostBytes[i], allLostBytes);
    }
    return found;
}

void AviTimestamps::correct(const AVStream& stream, AVPacket* packet) {
    // Packets that were parsed out of one chunk share its position.
    if (packet->dts != AV_NOPTS_VALUE && packet->pos >= 0 && packet->pos != mPosition) {
        mPosition = packet->pos;
        if (mGaps.empty()) {
            mShift = indexShift(stream, *packet);
        } else {
            int64_t lostUs = 0;
            for (const AviGap& gap : mGaps) lostUs += packet->pos >= gap.position ? gap.lostUs : 0;
            mShift = av_rescale_q(lostUs, kMicroseconds, stream.time_base);
        }
    }
    if (packet->dts != AV_NOPTS_VALUE) packet->dts += mShift;
    if (packet->pts != AV_NOPTS_VALUE) packet->pts += mShift;
}

// How many ticks libavformat is behind the index. While entries follow each other, nothing changes.
int64_t AviTimestamps::indexShift(const AVStream& stream, const AVPacket& packet) {
    auto* indexed = const_cast<AVStream*>(&stream);  // libavformat's functions do not change it
    const int64_t chunk = packet.pos - kHeaderBytes;
    int low = 0;
    int high = avformat_index_get_entries_count(indexed);
    while (low < high) {
        const int middle = low + (high - low) / 2;
        if (avformat_index_get_entry(indexed, middle)->pos < chunk) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    const AVIndexEntry* entry = avformat_index_get_entry(indexed, low);
    if (entry == nullptr || entry->pos != chunk) return mShift;
    const bool follows = mEntry >= 0 && low == mEntry + 1;
    mEntry = low;
    if (follows) return mShift;
    const int64_t ticks = entry->timestamp / ticksPerEntryUnit(stream) - packet.dts;
    // Where libavformat is ahead, it knows of frames that the index lacks.
    return std::max<int64_t>(ticks, 0);
}

void AviTimestamps::restart() {
    mPosition = -1;
    mEntry = -1;
    mShift = 0;
}

}  // namespace qmmediaeditor
}  // namespace android
