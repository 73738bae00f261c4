#include "host/extractor/InputProbe.h"

#include <android/log.h>
#include <editorutils/MediaEditorDefs.h>
#include <media/stagefright/MediaErrors.h>
#include <media/stagefright/foundation/ABuffer.h>

#include <algorithm>
#include <string>
#include <utility>

#include "host/codec/CodecTable.h"
#include "host/codec/InputLimits.h"
#include "host/codec/OutputSequencer.h"
#include "host/extractor/Demuxer.h"
#include "host/extractor/MetadataReader.h"
#include "host/extractor/TrackFormat.h"
#include "host/io/IsoBoxes.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/common.h>
#include <libavutil/parseutils.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr char kLogTag[] = "Extractor";
constexpr AVRational kMicroseconds = {1, 1000000};
// This number of frames distinguishes 30 from 29.97 frames per second by timestamps in
// milliseconds.
constexpr size_t kMaxProbedFrames = 120;
constexpr int64_t kMaxProbedBytes = 32 << 20;
constexpr int64_t kMinVideoSampleBytes = 1 << 20;
constexpr int64_t kMaxAudioSampleBytes = 512 << 10;
// Covers the overlap of transform codecs and MP3's bit reservoir.
constexpr int64_t kPrerollUs = 100000;

bool isKind(const AVStream& stream, AVMediaType kind) {
    return stream.codecpar->codec_type == kind;
}

bool isVideoTrack(const AVStream& stream) {
    return isKind(stream, AVMEDIA_TYPE_VIDEO) && !isCoverArt(stream);
}

// Reads all packets; needed for a recording that was never finished.
std::vector<int64_t> measureDurationsUs(const std::shared_ptr<const DescriptorFile>& file,
                                        size_t count) {
    std::vector<int64_t> durationsUs(count, 0);
    const auto demuxer = Demuxer::open(file, Demuxer::ProbeDepth::kStreams).demuxer;
    PacketPtr packet(av_packet_alloc());
    if (demuxer == nullptr || packet == nullptr) return durationsUs;
    while (demuxer->readPacket(Demuxer::kAnyStream, packet.get()) == OK) {
        const auto index = static_cast<size_t>(packet->stream_index);
        const int64_t start = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
        if (index >= count || start == AV_NOPTS_VALUE) continue;
        const AVStream& stream = *demuxer->context().streams[index];
        const int64_t origin = stream.start_time == AV_NOPTS_VALUE ? 0 : stream.start_time;
        const int64_t length = av_sat_sub64(start, origin);
        const int64_t end = av_sat_add64(length, std::max<int64_t>(packet->duration, 0));
        durationsUs[index] = std::max(durationsUs[index], demuxer->toUs(stream.index, end));
    }
    return durationsUs;
}

int64_t statedDurationUs(Demuxer* demuxer, const AVStream& stream) {
    // A duration that libavformat estimates from the bit rate knows of no gaps. In a container with
    // timestamps it would make those behind a gap look damaged.
    if (demuxer->headerIsEnough() &&
        demuxer->context().duration_estimation_method == AVFMT_DURATION_FROM_BITRATE) {
        return 0;
    }
    if (stream.duration != AV_NOPTS_VALUE && stream.duration > 0) {
        return demuxer->toUs(stream.index, stream.duration);
    }
    return std::max<int64_t>(demuxer->context().duration, 0);
}

// A track whose parameters its decoder refuses is treated as a track without a decoder.
void rejectUndecodable(AVStream* stream) {
    if (!isDecodable(*stream)) return;
    AVCodecParameters* parameters = stream->codecpar;
    const AVCodec* decoder = decoderOf(parameters->codec_id);
    CodecContextPtr context(avcodec_alloc_context3(decoder));
    if (context != nullptr) context->max_pixels = kMaxPixels;
    if (context == nullptr || avcodec_parameters_to_context(context.get(), parameters) < 0 ||
        avcodec_open2(context.get(), decoder, nullptr) < 0) {
        parameters->codec_id = AV_CODEC_ID_NONE;
    }
}

// The longest sample in the index, at most the size of the file, or the maximum for samples of this
// kind.
int64_t maxSampleBytes(AVStream& stream, int64_t fileBytes) {
    int64_t bytes = kMaxAudioSampleBytes;
    if (isKind(stream, AVMEDIA_TYPE_VIDEO)) {
        const AVCodecParameters& parameters = *stream.codecpar;
        const int64_t pixels = static_cast<int64_t>(parameters.width) * parameters.height;
        const AVCodecDescriptor* codec = avcodec_descriptor_get(parameters.codec_id);
        const bool lossless = codec != nullptr && (codec->props & AV_CODEC_PROP_LOSSY) == 0;
        bytes = std::max(kMinVideoSampleBytes, lossless ? pixels * 8 : pixels * 3 / 2);
    }
    for (int i = 0; i < avformat_index_get_entries_count(&stream); ++i) {
        const int64_t stated = avformat_index_get_entry(&stream, i)->size;
        bytes = std::max(bytes, std::min(stated, fileBytes));
    }
    return std::min<int64_t>(bytes, INT32_MAX);
}

// An ISO file's index has the decoding times of all samples. Without reordering they are the
// presentation times; with it, they have the same distances where the rate is constant. Elsewhere
// the first packets are read.
FrameTimestamps frameTimestamps(Demuxer* demuxer, AVStream& stream, const RawVideoIndex* rawIndex) {
    FrameTimestamps times;
    std::vector<int64_t>& timesUs = times.timesUs;
    if (rawIndex != nullptr) {
        for (const int64_t time : rawIndex->firstTimes()) {
            timesUs.push_back(demuxer->toUs(stream.index, time));
        }
        return times;
    }
    const int entries = avformat_index_get_entries_count(&stream);
    if (demuxer->isIsoFile() && entries > 1) {
        for (int i = 0; i < entries; ++i) {
            const AVIndexEntry& entry = *avformat_index_get_entry(&stream, i);
            if ((entry.flags & AVINDEX_DISCARD_FRAME) != 0) continue;
            timesUs.push_back(demuxer->toUs(stream.index, entry.timestamp));
        }
        times.complete = stream.codecpar->video_delay == 0;
        return times;
    }
    PacketPtr packet(av_packet_alloc());
    if (packet == nullptr) return times;
    demuxer->keepOnly(stream.index);
    int64_t bytes = 0;
    while (timesUs.size() < kMaxProbedFrames && bytes < kMaxProbedBytes &&
           demuxer->readPacket(stream.index, packet.get()) == OK) {
        const int64_t time = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
        if (time != AV_NOPTS_VALUE) timesUs.push_back(demuxer->toUs(stream.index, time));
        bytes += packet->size;
    }
    return times;
}

// Each field of an interlaced stream may be a sample of its own.
bool isInterlaced(const AVStream& stream) {
    return stream.codecpar->field_order > AV_FIELD_PROGRESSIVE;
}

FrameRateEstimate frameRateEstimate(AVStream& stream, FrameTimestamps times) {
    std::vector<FrameRate> likely;
    for (const AVRational rate : {stream.avg_frame_rate, stream.r_frame_rate}) {
        likely.push_back({rate.num, rate.den});
    }
    const int64_t tickUs = av_rescale_q_rnd(1, stream.time_base, kMicroseconds, AV_ROUND_UP);
    FrameRateEstimate timing = estimateFrameRate(std::move(times), tickUs, likely);
    const double average = av_q2d(stream.avg_frame_rate);
    if (isInterlaced(stream) && average > 0 && timing.rate > average * 3 / 2) {
        timing.rate = (timing.rate + 1) / 2;
    }
    return timing;
}

int64_t prerollUs(const AVCodecParameters& parameters) {
    const int64_t samples = std::max(parameters.seek_preroll, 0);
    return std::max(kPrerollUs, av_rescale(samples, kMicroseconds.den, parameters.sample_rate));
}

// The index of an audio track is often missing; the video track's index is used instead.
int seekStreamIndex(const Demuxer& demuxer, const AVFormatContext& context,
                    const AVStream& stream) {
    if (!demuxer.indexIsOfVideo()) return stream.index;
    for (unsigned i = 0; i < context.nb_streams; ++i) {
        if (isVideoTrack(*context.streams[i])) return context.streams[i]->index;
    }
    return stream.index;
}

sp<TrackSource> makeSource(const AVCodecParameters& parameters,
                           const sp<OutputSequencer>& sequencer) {
    CodecParametersPtr copy(avcodec_parameters_alloc());
    if (copy == nullptr || avcodec_parameters_copy(copy.get(), &parameters) < 0) return nullptr;
    return new TrackSource(std::move(copy), sequencer);
}

// Null when memory is short.
sp<AMessage> makeFileFormat(const AVFormatContext& context, const std::vector<uint8_t>& uuidData,
                            const RecordingMetadata& metadata) {
    sp<AMessage> format = new AMessage;
    format->setString("mime", mimeOfContainer(context));
    const sp<MetadataMessage> message = new MetadataMessage;
    message->content = metadata;
    format->setObject(MetadataMessage::kKey, message);
    if (!uuidData.empty()) {
        const sp<ABuffer> copy = ABuffer::CreateAsCopy(uuidData.data(), uuidData.size());
        if (copy == nullptr) return nullptr;
        format->setBuffer("uuid-data", copy);
    }
    return format;
}

// Without a format when memory is short.
TrackInfo describeTrack(Demuxer* demuxer, AVStream& stream, int64_t durationUs, bool estimateRate,
                        const std::shared_ptr<const RawVideoIndex>& rawIndex,
                        const sp<OutputSequencer>& sequencer) {
    AVFormatContext& context = demuxer->context();
    const AVCodecParameters& parameters = *stream.codecpar;
    TrackInfo track;
    track.streamIndex = stream.index;
    track.isVideo = isKind(stream, AVMEDIA_TYPE_VIDEO);
    track.rawIndex = rawIndex;
    TrackProperties properties;
    properties.durationUs = durationUs;
    if (isDecodable(stream)) {
        track.maxSampleBytes = static_cast<size_t>(maxSampleBytes(stream, avio_size(context.pb)));
        properties.maxSampleBytes = static_cast<int32_t>(track.maxSampleBytes);
        track.seekStreamIndex = seekStreamIndex(*demuxer, context, stream);
        if (stream.start_time != AV_NOPTS_VALUE && !demuxer->hasOnlyFrameNumbers() &&
            rawIndex == nullptr) {
            track.startUs = demuxer->toUs(stream.index, stream.start_time);
        }
        track.source = makeSource(parameters, sequencer);
        if (track.source == nullptr) return track;
        if (track.isVideo) {
            const size_t samplesPerFrame = isInterlaced(stream) ? 2 : 1;
            track.reorderDepth =
                static_cast<size_t>(std::max(parameters.video_delay, 0)) * samplesPerFrame;
            const FrameRateEstimate timing = frameRateEstimate(
                stream, estimateRate ? frameTimestamps(demuxer, stream, rawIndex.get())
                                     : FrameTimestamps());
            properties.frameRate = timing.rate;
            if (!timing.constantRate) properties.averageFrameRate = av_q2d(stream.avg_frame_rate);
            track.constantRate = timing.constantRate;
            if (timing.constantRate) {
                properties.constantRate = timing.constantRate->rate();
                track.source->setFrameRate(properties.constantRate);
            }
        } else {
            track.prerollUs = prerollUs(parameters);
        }
    }
    track.format = makeTrackFormat(context, stream, properties);
    if (track.format == nullptr) return track;
    track.language = readLanguage(stream);
    if (!track.language.empty()) track.format->setString("language", track.language.c_str());
    if (track.source != nullptr) track.format->setObject(TrackSource::kKey, track.source);
    return track;
}

// Nothing when an edit list leaves samples out: then another sample is the last one that is shown.
std::optional<TrackInfo::Ending> findEnding(const std::vector<IsoTrackLength>& lengths,
                                            const Demuxer& demuxer, AVStream& stream) {
    const auto length = std::find_if(lengths.begin(), lengths.end(), [&](const auto& each) {
        return static_cast<int64_t>(each.trackId) == stream.id;
    });
    const int entries = avformat_index_get_entries_count(&stream);
    if (length == lengths.end() || entries < 1 || length->samples != entries) return std::nullopt;
    // Of the first sample in the file, which is before the first one shown if an edit list cuts the
    // start.
    const int64_t start = avformat_index_get_entry(&stream, 0)->timestamp;
    const int64_t samplesEndUs =
        demuxer.toUs(stream.index, av_sat_add64(start, length->durationTicks));
    const auto movieUs = [&](int64_t ticks) {
        return av_rescale(ticks, kMicroseconds.den, length->movieTicksPerSecond);
    };
    const int64_t editsEndUs = movieUs(length->presentationTicks);
    TrackInfo::Ending ending;
    ending.lastDts = avformat_index_get_entry(&stream, entries - 1)->timestamp;
    ending.endUs = samplesEndUs;
    if (isKind(stream, AVMEDIA_TYPE_AUDIO)) {
        // The edits are rounded to ticks of the movie; they count where they leave samples out.
        const bool isCut = editsEndUs > 0 && samplesEndUs - editsEndUs > movieUs(1);
        if (isCut) ending.endUs = editsEndUs;
    } else if (stream.codecpar->video_delay != 0) {
        // The decoding times of reordered frames do not say when the last one ends.
        ending.endUs = editsEndUs;
    }
    return ending;
}

// The header of an EBML element (RFC 8794): its identifier, and where its content begins and ends.
struct EbmlElement {
    uint32_t id;
    int64_t contentOffset;
    std::optional<int64_t> endOffset;  // nothing when the size is not known
};

// Of elements whose identifiers have four bytes, such as those of the top level.
std::optional<EbmlElement> readEbmlElement(const DescriptorFile& file, int64_t offset) {
    constexpr int64_t kIdBytes = 4;
    uint8_t data[kIdBytes + 8] = {};
    if (!file.readFully(offset, data, sizeof(data)) || data[kIdBytes] == 0) return std::nullopt;
    int sizeBytes = 1;
    while ((data[kIdBytes] & (0x80 >> (sizeBytes - 1))) == 0) ++sizeBytes;
    int64_t size = data[kIdBytes] & (0xff >> sizeBytes);
    for (int i = 1; i < sizeBytes; ++i) size = size << 8 | data[kIdBytes + i];
    EbmlElement element;
    element.id = get32(data);
    element.contentOffset = offset + kIdBytes + sizeBytes;
    // All ones: a live recording does not know its size.
    if (size != (INT64_C(1) << (7 * sizeBytes)) - 1) {
        element.endOffset = av_sat_add64(element.contentOffset, size);
    }
    return element;
}

bool isWholeMatroskaFile(const DescriptorFile& file) {
    constexpr uint32_t kSegment = 0x18538067;
    const std::optional<EbmlElement> header = readEbmlElement(file, 0);
    if (!header || !header->endOffset) return false;
    const std::optional<EbmlElement> segment = readEbmlElement(file, *header->endOffset);
    return segment && segment->id == kSegment && segment->endOffset &&
           *segment->endOffset <= file.sizeBytes();
}

// The end that muxers state in the tags of a Matroska track. Where frames come at a constant rate,
// the track's default duration is more exact. Nothing for a file that was cut off: its last frame
// is not the track's.
std::optional<TrackInfo::Ending> findMatroskaEnding(const DescriptorFile& file,
                                                    const Demuxer& demuxer, const AVStream& stream,
                                                    const TrackInfo& track) {
    if (!demuxer.isMatroska() || !track.isVideo || track.constantRate) return std::nullopt;
    const auto tag = [&stream](const char* name) {
        return av_dict_get(stream.metadata, name, nullptr, AV_DICT_IGNORE_SUFFIX);
    };
    const AVDictionaryEntry* duration = tag("DURATION");
    TrackInfo::Ending ending = {};
    if (duration == nullptr || av_parse_time(&ending.endUs, duration->value, 1) < 0 ||
        ending.endUs <= 0 || !isWholeMatroskaFile(file)) {
        return std::nullopt;
    }
    // In the statistics that mkvmerge writes the duration counts from the first frame, elsewhere
    // from 0.
    if (tag("_STATISTICS_TAGS") != nullptr) {
        ending.endUs = av_sat_add64(ending.endUs, track.startUs);
    }
    return ending;
}

void leaveOut(TrackInfo* track) {
    AString mime;
    track->format->findString("mime", &mime);
    track->format->setString("left-out-mime", mime.c_str());
    track->format->setString("mime", track->isVideo ? MEDIAEDITOR_MIMETYPE_VIDEO_NOTSUPPORTED
                                                    : MEDIAEDITOR_MIMETYPE_AUDIO_NOTSUPPORTED);
    track->source = nullptr;
    track->isLeftOut = true;
}

void applyChoice(const TrackChoice& choice, const AVFormatContext& context,
                 std::vector<TrackInfo>* tracks) {
    const auto isAudio = [&context](const TrackInfo& track) {
        return isKind(*context.streams[track.streamIndex], AVMEDIA_TYPE_AUDIO);
    };
    const bool hasChosen = choice.audioTrack > 0 && std::count_if(tracks->begin(), tracks->end(),
                                                                  isAudio) >= choice.audioTrack;
    int audioTracks = 0;
    for (TrackInfo& track : *tracks) {
        bool isUsed = choice.video;
        if (isAudio(track)) {
            const bool isChosen = ++audioTracks == choice.audioTrack;
            isUsed = choice.audio && (isChosen || !hasChosen);
        }
        if (track.source != nullptr && !isUsed) leaveOut(&track);
    }
}

// Of the first sample.
int64_t startUs(const AVFormatContext& context) {
    return context.start_time == AV_NOPTS_VALUE ? 0 : context.start_time;
}

void findDelays(const std::vector<TrackInfo>& tracks) {
    int64_t originUs = INT64_MAX;
    for (const TrackInfo& track : tracks) {
        if (track.source != nullptr || track.isLeftOut) {
            originUs = std::min(originUs, track.startUs);
        }
    }
    for (const TrackInfo& track : tracks) {
        if (track.source != nullptr) track.source->setDelayUs(track.startUs - originUs);
    }
}

// Audio beyond the limits is skipped. The reason when nothing decodable remains.
std::optional<std::string> findUnreadable(const AVFormatContext& context) {
    std::optional<std::string> reason;
    bool isReadable = false;
    for (unsigned i = 0; i < context.nb_streams; ++i) {
        const AVStream& stream = *context.streams[i];
        isReadable = isReadable || isDecodable(stream);
        if (!isKind(stream, AVMEDIA_TYPE_AUDIO) || reason) continue;
        reason = checkAudio(stream.codecpar->sample_rate, stream.codecpar->ch_layout.nb_channels);
    }
    if (!reason || !isReadable) return reason;
    __android_log_print(ANDROID_LOG_WARN, kLogTag, "passed over: %s", reason->c_str());
    return std::nullopt;
}

std::optional<std::string> checkDisplaySize(const TrackInfo& track) {
    int32_t width = 0;
    int32_t height = 0;
    if (!track.isVideo || !track.format->findInt32("width", &width) ||
        !track.format->findInt32("height", &height)) {
        return std::nullopt;
    }
    return checkSize("video with a displayed size", width, height);
}

status_t refuse(const DescriptorFile& file, const std::string& reason) {
    file.refuse(reason);
    return ERROR_UNSUPPORTED;
}

bool hasSecondFrame(const std::shared_ptr<const DescriptorFile>& file) {
    const auto demuxer = Demuxer::open(file, Demuxer::ProbeDepth::kHeader).demuxer;
    PacketPtr packet(av_packet_alloc());
    if (demuxer == nullptr || packet == nullptr) return false;
    return demuxer->readPacket(Demuxer::kAnyStream, packet.get()) == OK &&
           demuxer->readPacket(Demuxer::kAnyStream, packet.get()) == OK;
}

}  // namespace

bool InputInfo::isUnshared() const {
    return format->getStrongCount() == 1 &&
           std::all_of(tracks.begin(), tracks.end(), [](const TrackInfo& track) {
               // A format refers to its source, too.
               return track.format->getStrongCount() == 1 &&
                      (track.source == nullptr || track.source->getStrongCount() == 2);
           });
}

InputHandover::File::File(const struct stat& status, int64_t offset, int64_t length)
    : mStatus(status), mOffset(offset), mLength(length) {}

bool InputHandover::File::operator==(const File& other) const {
    const auto sameTime = [](const timespec& a, const timespec& b) {
        return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
    };
    return mStatus.st_dev == other.mStatus.st_dev && mStatus.st_ino == other.mStatus.st_ino &&
           mStatus.st_size == other.mStatus.st_size &&
           sameTime(mStatus.st_mtim, other.mStatus.st_mtim) &&
           sameTime(mStatus.st_ctim, other.mStatus.st_ctim) && mOffset == other.mOffset &&
           mLength == other.mLength;
}

void InputHandover::put(const File& file, InputInfo info) {
    Mutex::Autolock lock(mLock);
    mFile = file;
    mInfo = std::move(info);
}

std::optional<InputInfo> InputHandover::take(const File& file) {
    Mutex::Autolock lock(mLock);
    if (!mInfo || !(mFile == file)) return std::nullopt;
    return std::exchange(mInfo, std::nullopt);
}

status_t probeInput(const std::shared_ptr<const DescriptorFile>& file, const HostOptions& options,
                    InputInfo* info) {
    // Before the demuxer, which makes an index entry for each sample.
    if (const auto reason = checkSampleTables(*file)) return refuse(*file, *reason);
    if (file->status() != OK) return ERROR_IO;
    const Demuxer::Opened opened = Demuxer::open(file, Demuxer::ProbeDepth::kStreams);
    if (opened.demuxer == nullptr) return opened.status;
    Demuxer* const demuxer = opened.demuxer.get();
    TopLevelBoxes boxes;
    if (demuxer->isIsoFile()) {
        boxes = readTopLevelBoxes(*file, options.metadata == MetadataPolicy::kAll
                                             ? XmpLocations::kReport
                                             : XmpLocations::kLeaveOut);
        if (file->status() != OK) return ERROR_IO;
        if (boxes.movieBytes == 0) return ERROR_UNSUPPORTED;
    }
    AVFormatContext& context = demuxer->context();
    std::vector<int64_t> durationsUs(context.nb_streams, 0);
    bool hasMedia = false;
    bool complete = true;
    for (unsigned i = 0; i < context.nb_streams; ++i) {
        rejectUndecodable(context.streams[i]);
        const AVStream& stream = *context.streams[i];
        durationsUs[i] = statedDurationUs(demuxer, stream);
        hasMedia = hasMedia || isKind(stream, AVMEDIA_TYPE_AUDIO) || isVideoTrack(stream);
        complete = complete && (durationsUs[i] > 0 || !isDecodable(stream));
    }
    if (!hasMedia) return ERROR_UNSUPPORTED;
    if (demuxer->isAnimation() && !hasSecondFrame(file)) {
        if (file->status() != OK) return ERROR_IO;
        return refuse(*file, "a still image, not an animation");
    }
    if (const auto reason = findUnreadable(context)) return refuse(*file, *reason);
    std::shared_ptr<const RawVideoIndex> rawIndex;
    if (demuxer->isRawVideo()) {
        const RawVideoIndex::Made made = RawVideoIndex::make(file);
        if (made.index == nullptr) return made.status;
        rawIndex = made.index;
        durationsUs[0] = demuxer->toUs(0, rawIndex->durationTicks());
    } else if (!complete) {
        durationsUs = measureDurationsUs(file, durationsUs.size());
    }

    std::vector<AviGap> gaps;
    if (demuxer->hasOnlyFrameNumbers()) {
        const AviTimestamps::Gaps search = AviTimestamps::findGaps(file);
        if (search.status != OK) return search.status;
        gaps = search.gaps;
    }

    InputInfo found;
    found.zeroIsFixed = demuxer->isIsoFile();
    found.metadata = readMetadata(*file, demuxer, boxes);
    found.metadata.chapters = readChapters(context, std::max<int64_t>(startUs(context), 0));
    found.format = makeFileFormat(context, boxes.uuidData, found.metadata);
    if (found.format == nullptr) return NO_MEMORY;
    // From the bit rate of the beginning, or from timestamps that may begin again.
    const bool isFromBitRate =
        complete && context.duration_estimation_method == AVFMT_DURATION_FROM_BITRATE;
    if (isFromBitRate || demuxer->mayHaveDiscontinuities()) {
        found.format->setInt32("duration-is-estimated", 1);
    }
    const sp<OutputSequencer> sequencer = new OutputSequencer;
    std::shared_ptr<TimestampDiscontinuities> discontinuities;
    if (demuxer->mayHaveDiscontinuities())
        discontinuities = std::make_shared<TimestampDiscontinuities>();
    std::vector<IsoTrackLength> lengths;
    if (boxes.movieBytes > 0) lengths = readTrackLengths(*file, boxes.movieOffset);
    bool estimateRate = true;
    for (unsigned i = 0; i < context.nb_streams; ++i) {
        AVStream& stream = *context.streams[i];
        found.tracks.push_back(
            describeTrack(demuxer, stream, durationsUs[i], estimateRate, rawIndex, sequencer));
        if (found.tracks.back().format == nullptr) return NO_MEMORY;
        if (const auto reason = checkDisplaySize(found.tracks.back())) {
            return refuse(*file, *reason);
        }
        TrackInfo& track = found.tracks.back();
        track.discontinuities = discontinuities;
        track.gaps = gaps;
        track.ending = findEnding(lengths, *demuxer, stream);
        if (!track.ending) track.ending = findMatroskaEnding(*file, *demuxer, stream, track);
        if (track.isVideo && isDecodable(stream)) estimateRate = false;
    }
    // The functions above ignore read errors.
    if (file->status() != OK) return ERROR_IO;
    applyChoice(options.tracks, context, &found.tracks);
    findDelays(found.tracks);
    *info = std::move(found);
    return OK;
}

}  // namespace qmmediaeditor
}  // namespace android
