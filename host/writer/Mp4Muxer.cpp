#include "host/writer/Mp4Muxer.h"

#include <android/log.h>
#include <media/stagefright/MediaErrors.h>
#include <string.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "host/io/IsoBoxes.h"
#include "host/writer/MetadataBoxes.h"
#include "host/writer/MovieCompletion.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/display.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr char kLogTag[] = "Writer";
constexpr int32_t k3gpFileType = 1;
// libavformat writes "3gp6" for AVC, which Firefox does not play; nor does it play "3gp5" or
// "3gp7".
constexpr char k3gpBrand[] = "3gp4";
// For a variable frame rate: a multiple of most frame rates.
constexpr int kVideoTicksPerSecond = 90000;
constexpr int kMinVideoTicksPerSecond = 10000;
constexpr int kMaxVideoTicksPerSecond = 1000000;
// Some players round what an edit list says to milliseconds, and drop a packet where that is less.
constexpr int kMovieTicksPerSecond = 1000;
constexpr int64_t kSecondUs = 1000000;
constexpr int kDefaultFrameRate = 30;
// Samples that are held back for another track. Two tracks of a session run within a batch of each
// other, so that only a track with a long pause reaches it.
constexpr size_t kMaxHeldBytes = 16 << 20;
constexpr int kIoBufferBytes = 256 * 1024;
constexpr char kEncoderName[] = "libQmMediaEdit_Transcode " QM_VERSION;

const CodecInfo* findCodec(const MetaDataBase& format) {
    const char* mime = nullptr;
    return format.findCString(kKeyMIMEType, &mime) ? findEncodedCodec(mime) : nullptr;
}

uint32_t tagOf(const char* sampleEntry) {
    return MKTAG(sampleEntry[0], sampleEntry[1], sampleEntry[2], sampleEntry[3]);
}

int32_t intOf(const MetaDataBase& format, uint32_t key) {
    int32_t value = 0;
    format.findInt32(key, &value);
    return value;
}

// A timescale that holds each frame's time exactly.
int videoTicksPerSecond(const std::optional<FrameRate>& rate) {
    if (!rate || rate->numerator < 1 || rate->numerator > kMaxVideoTicksPerSecond) {
        return kVideoTicksPerSecond;
    }
    auto ticks = static_cast<int>(rate->numerator);
    while (ticks < kMinVideoTicksPerSecond) ticks *= 2;
    return ticks;
}

bool isVideo(const AVCodecParameters& parameters) {
    return parameters.codec_type == AVMEDIA_TYPE_VIDEO;
}

bool setExtradata(const uint8_t* data, size_t size, AVCodecParameters* parameters) {
    auto* copy = static_cast<uint8_t*>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
    if (copy == nullptr) return false;
    memcpy(copy, data, size);
    av_freep(&parameters->extradata);
    parameters->extradata = copy;
    parameters->extradata_size = static_cast<int>(size);
    return true;
}

// The colour properties of every encoder's input.
void setVideoParameters(const MetaDataBase& format, AVCodecParameters* parameters) {
    // 4:2:0 has no odd sizes; the encoders leave the last row and column out.
    parameters->width = intOf(format, kKeyWidth) & ~1;
    parameters->height = intOf(format, kKeyHeight) & ~1;
    parameters->color_primaries = AVCOL_PRI_BT709;
    parameters->color_trc = AVCOL_TRC_BT709;
    parameters->color_space = AVCOL_SPC_BT709;
    parameters->color_range = AVCOL_RANGE_MPEG;
    parameters->sample_aspect_ratio = {1, 1};
    parameters->format = AV_PIX_FMT_YUV420P;
    parameters->profile = 0;
}

// Payload of the box 'damr' (3GPP TS 26.244, 6.7): vendor, version of the decoder, the modes that
// may occur (all of AMR-WB's), and one frame in a sample.
constexpr uint8_t kAmrWbSpecificData[] = {'q', 'm', 't', 'c', 0, 0x83, 0xff, 0, 1};

// False when memory is short.
bool setAudioParameters(const MetaDataBase& format, const CodecInfo& codec,
                        AVCodecParameters* parameters) {
    parameters->sample_rate = intOf(format, kKeySampleRate);
    av_channel_layout_default(&parameters->ch_layout, intOf(format, kKeyChannelCount));
    parameters->frame_size = codec.frameSamples;
    if (parameters->codec_id != AV_CODEC_ID_AMR_WB) return true;
    return setExtradata(kAmrWbSpecificData, sizeof(kAmrWbSpecificData), parameters);
}

bool isComplete(const AVCodecParameters& parameters) {
    if (isVideo(parameters)) return parameters.width > 0 && parameters.height > 0;
    return parameters.sample_rate > 0 && parameters.ch_layout.nb_channels > 0;
}

bool setRotation(AVStream* stream, int32_t degrees) {
    int32_t matrix[9];
    av_display_rotation_set(matrix, degrees);
    uint8_t* data = av_stream_new_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, sizeof(matrix));
    if (data == nullptr) return false;
    memcpy(data, matrix, sizeof(matrix));
    return true;
}

}  // namespace

Mp4Muxer::Mp4Muxer(std::shared_ptr<DescriptorFile> output, std::shared_ptr<SessionTimeline> session)
    : mOutput(std::move(output)),
      mIo(AvioFile::forWriting(mOutput, kIoBufferBytes)),
      mSession(std::move(session)) {}

Mp4Muxer::~Mp4Muxer() = default;

status_t Mp4Muxer::addTrack(const MetaDataBase& format) {
    Mutex::Autolock lock(mLock);
    const CodecInfo* codec = findCodec(format);
    if (codec == nullptr) return ERROR_UNSUPPORTED;
    Track track;
    track.codec = codec;
    track.parameters.reset(avcodec_parameters_alloc());
    if (track.parameters == nullptr) return NO_MEMORY;
    AVCodecParameters* parameters = track.parameters.get();
    parameters->codec_id = static_cast<AVCodecID>(decoderIdOf(codec->mime));
    parameters->codec_type = avcodec_get_type(parameters->codec_id);
    parameters->codec_tag = tagOf(codec->sampleEntry);
    parameters->bit_rate = intOf(format, kKeyBitRate);
    track.frameRate = intOf(format, kKeyFrameRate);
    if (isVideo(*parameters)) {
        setVideoParameters(format, parameters);
    } else if (!setAudioParameters(format, *codec, parameters)) {
        return NO_MEMORY;
    }
    if (!isComplete(*parameters)) return ERROR_MALFORMED;
    mTracks.push_back(std::move(track));
    return OK;
}

bool Mp4Muxer::needs3gp() const {
    return std::any_of(mTracks.begin(), mTracks.end(),
                       [](const Track& track) { return track.codec->only3gp; });
}

status_t Mp4Muxer::begin(int32_t fileType, int32_t rotationDegrees, bool movieBoxFirst) {
    Mutex::Autolock lock(mLock);
    mIs3gp = fileType == k3gpFileType || needs3gp();
    const char* name = mIs3gp ? "3gp" : "mp4";
    AVFormatContext* context = nullptr;
    if (avformat_alloc_output_context2(&context, nullptr, name, nullptr) < 0) return NO_MEMORY;
    mContext.reset(context);
    context->pb = mIo->context();
    context->opaque = this;
    context->io_open = openWritten;
    context->io_close2 = closeWritten;
    context->flags |= AVFMT_FLAG_BITEXACT;
    context->flush_packets = 0;
    // The encoders deliver samples in the form that the file needs.
    context->flags &= ~AVFMT_FLAG_AUTO_BSF;
    int videoTicks =
        videoTicksPerSecond(mSession == nullptr ? std::nullopt : mSession->frameRate());
    if (mSession != nullptr && mSession->isPart()) videoTicks = kMaxVideoTicksPerSecond;
    // Without it libavformat writes an empty list of properties, which some checkers reject.
    if (av_dict_set(&context->metadata, "encoding_tool", kEncoderName, 0) < 0) return NO_MEMORY;
    for (Track& track : mTracks) {
        const status_t result = addStream(&track, rotationDegrees, videoTicks);
        if (result != OK) return result;
    }
    if (const status_t result = addMetadata(); result != OK) return result;
    AVDictionary* options = nullptr;
    const bool isFirst = movieBoxFirst && mOutput->makeReadable();
    if (av_dict_set_int(&options, "video_track_timescale", videoTicks, 0) < 0 ||
        av_dict_set_int(&options, "movie_timescale", kMovieTicksPerSecond, 0) < 0 ||
        (isFirst && av_dict_set(&options, "movflags", "+faststart", 0) < 0) ||
        (mIs3gp && av_dict_set(&options, "brand", k3gpBrand, 0) < 0)) {
        av_dict_free(&options);
        return NO_MEMORY;
    }
    const int result = avformat_write_header(context, &options);
    av_dict_free(&options);
    // A full disk is no reason to refuse the tracks: the first sample reports it.
    if (result < 0 && keep(result) != OK && context->pb->error == 0) return mError;
    mHasHeader = result >= 0;
    for (Track& track : mTracks) startTimestamps(&track);
    mInterleaver = std::make_unique<PacketInterleaver>(mTracks.size(), kMaxHeldBytes);
    return OK;
}

status_t Mp4Muxer::addStream(Track* track, int32_t rotationDegrees, int videoTicks) {
    AVStream* stream = avformat_new_stream(mContext.get(), nullptr);
    if (stream == nullptr) return NO_MEMORY;
    if (avcodec_parameters_copy(stream->codecpar, track->parameters.get()) < 0) return NO_MEMORY;
    track->stream = stream;
    if (!isVideo(*stream->codecpar)) {
        stream->time_base = {1, stream->codecpar->sample_rate};
        return OK;
    }
    stream->time_base = {1, videoTicks};
    stream->sample_aspect_ratio = stream->codecpar->sample_aspect_ratio;
    if (rotationDegrees % 360 != 0 && !setRotation(stream, rotationDegrees)) return NO_MEMORY;
    return OK;
}

// libavformat writes creation time and languages, but neither keys nor QuickTime's texts into MP4
// files. It gets a text of that size instead, which makes room for their boxes in the movie box,
// wherever that one is. The boxes are put there when the file is finished.
status_t Mp4Muxer::addMetadata() {
    if (mSession == nullptr) return OK;
    const RecordingMetadata metadata = mSession->metadata().selected();
    const auto set = [](AVDictionary** tags, const char* name, const std::string& value) {
        return value.empty() || av_dict_set(tags, name, value.c_str(), 0) >= 0;
    };
    for (const Track& track : mTracks) {
        const std::string language = mSession->metadata().language(isVideo(*track.parameters));
        if (!set(&track.stream->metadata, "language", language)) return NO_MEMORY;
    }
    const auto time = metadata.fields.find(MetadataField::kCreationTime);
    if (time != metadata.fields.end() && !set(&mContext->metadata, "creation_time", time->second)) {
        return NO_MEMORY;
    }
    // The boxes are found by reading the file again.
    if (!mOutput->makeReadable()) return OK;
    mMetadataBoxes = makeMetadataBoxes(metadata, mIs3gp, kEncoderName);
    const std::string room(mMetadataBoxes.size(), '.');
    return set(&mContext->metadata, "comment", room) ? OK : NO_MEMORY;
}

status_t Mp4Muxer::completeMetadata() {
    if (mMetadataBoxes.empty()) return OK;
    return replaceUserData(mOutput.get(), mMetadataBoxes);
}

void Mp4Muxer::startTimestamps(Track* track) {
    const AVRational tick = track->stream->time_base;
    const int64_t ticksPerSecond = tick.den / std::max(tick.num, 1);
    const int frameRate = track->frameRate > 0 ? track->frameRate : kDefaultFrameRate;
    track->timestamps = std::make_unique<TrackTimestamps>(
        ticksPerSecond, track->parameters->frame_size, ticksPerSecond / frameRate);
}

status_t Mp4Muxer::setCodecConfig(size_t index, const uint8_t* data, size_t size) {
    Mutex::Autolock lock(mLock);
    Track& track = mTracks.at(index);
    if (track.hasSamples || size == 0) return mError;
    // libavformat takes it over with the track's first sample.
    return setExtradata(data, size, track.stream->codecpar) ? mError : NO_MEMORY;
}

status_t Mp4Muxer::writeSample(size_t index, const uint8_t* data, size_t size, int64_t timeUs,
                               bool isSync) {
    Mutex::Autolock lock(mLock);
    if (mError != OK || size == 0) return mError;
    const bool isFirst = std::none_of(mTracks.begin(), mTracks.end(),
                                      [](const Track& each) { return each.hasSamples; });
    if (isFirst && observer() != nullptr) observer()->onFirstSample();
    Track& track = mTracks.at(index);
    if (!track.hasSamples && observer() != nullptr) {
        observer()->onTrackStart(isVideo(*track.parameters), timeUs);
    }
    const TrackTimestamps::Stamp stamp = track.timestamps->stamp(timeUs);
    PacketPtr packet(av_packet_alloc());
    if (packet == nullptr || av_new_packet(packet.get(), static_cast<int>(size)) < 0) {
        return keep(NO_MEMORY);
    }
    memcpy(packet->data, data, size);
    packet->stream_index = track.stream->index;
    packet->pts = packet->dts = stamp.ticks;
    packet->duration = stamp.durationTicks;
    packet->flags = isSync ? AV_PKT_FLAG_KEY : 0;
    // Samples of one track stay in order where their timestamps do not rise.
    track.lastTimeUs = track.hasSamples ? std::max(timeUs, track.lastTimeUs) : timeUs;
    track.hasSamples = true;
    const int64_t durationUs =
        av_rescale_q(stamp.durationTicks, track.stream->time_base, {1, 1000000});
    mInterleaver->push({index, std::move(packet), track.lastTimeUs, track.lastTimeUs + durationUs});
    return writeSettled();
}

status_t Mp4Muxer::endTrack(size_t index) {
    Mutex::Autolock lock(mLock);
    const Track& track = mTracks.at(index);
    if (mInterleaver == nullptr || !hasAllSamples(track)) return mError;
    const PacketInterleaver::Held* last = mInterleaver->last(index);
    const bool hasVideo = isVideo(*track.parameters);
    std::optional<int64_t> endUs;
    if (last != nullptr && mSession != nullptr) {
        endUs = hasVideo ? mSession->videoEndUs(last->timeUs) : mSession->audioEndUs();
    }
    const bool isKnown = endUs && *endUs > last->timeUs;
    endAt(index, isKnown ? *endUs : last == nullptr ? 0 : last->endUs);
    if (isKnown && hasVideo && observer() != nullptr) observer()->onVideoEnd(*endUs);
    return writeSettled();
}

bool Mp4Muxer::hasAllSamples(const Track& track) const {
    return mSession == nullptr || mSession->isComplete(isVideo(*track.parameters));
}

// The duration of a video frame is the time for which it is shown. An audio packet has that of its
// codec's frame, or less where the audio ends inside of it.
void Mp4Muxer::endAt(size_t index, int64_t endUs) {
    const Track& track = mTracks[index];
    const PacketInterleaver::Held* last = mInterleaver->last(index);
    if (last != nullptr) {
        // Microseconds cannot express the end of a whole frame.
        constexpr int64_t kRoundingTicks = 1;
        AVPacket& packet = *last->packet;
        // libavformat takes a track that ends less than a tick of the movie behind its priming for
        // one that lasts for ever.
        const int64_t minTicks = track.timestamps->ticksAt(2 * kSecondUs / kMovieTicksPerSecond);
        const int64_t endTicks = std::max(track.timestamps->ticksAt(endUs), minTicks);
        const int64_t ticks = std::max<int64_t>(endTicks - packet.dts, 1);
        if (isVideo(*track.parameters) || ticks + kRoundingTicks < packet.duration) {
            packet.duration = ticks;
        }
    }
    mInterleaver->end(index, endUs);
}

void Mp4Muxer::cutStoppedTracks() {
    mInterleaver->cutAt(mInterleaver->commonEndUs());
    for (size_t i = 0; i < mTracks.size(); ++i) {
        const PacketInterleaver::Held* last = mInterleaver->last(i);
        endAt(i, last == nullptr ? 0 : last->endUs);
    }
}

status_t Mp4Muxer::writeSettled() {
    while (mError == OK) {
        const std::optional<PacketInterleaver::Held> next = mInterleaver->pop();
        if (!next) break;
        keep(av_write_frame(mContext.get(), next->packet.get()));
    }
    return mError;
}

status_t Mp4Muxer::finish(const std::vector<uint8_t>& boxes) {
    Mutex::Autolock lock(mLock);
    if (mInterleaver != nullptr) {
        cutStoppedTracks();
        writeSettled();
    }
    if (mHasHeader) {
        keep(av_write_trailer(mContext.get()));
        mHasHeader = false;
        AVIOContext* const io = mIo->context();
        avio_flush(io);
        if (mError == OK && mIs3gp) keep(completeMovieBox());
        if (mError == OK) keep(completeMetadata());
        // When the movie box was put first, the position is behind that one; and `io` does not know
        // by how much completion has changed the size.
        avio_seek(io, mOutput->sizeBytes(), SEEK_SET);
        avio_write(io, boxes.data(), static_cast<int>(boxes.size()));
    }
    avio_flush(mIo->context());
    keep(mOutput->finish());
    // The session has no other way to hear of a decoder that failed after it took its last input.
    if (mError == OK && mSession != nullptr && mSession->hasLoss()) return ERROR_MALFORMED;
    return mError;
}

status_t Mp4Muxer::completeMovieBox() {
    VideoDemand demand;
    for (const Track& track : mTracks) {
        if (!isVideo(*track.parameters)) continue;
        demand = {track.parameters->width, track.parameters->height,
                  static_cast<double>(track.frameRate), track.parameters->bit_rate};
    }
    return mOutput->makeReadable() ? completeMovie(mOutput.get(), h263LevelFor(demand)) : OK;
}

// libavformat reads the samples again to put the movie box in front of them.
int Mp4Muxer::openWritten(AVFormatContext* context, AVIOContext** io, const char*, int flags,
                          AVDictionary**) {
    auto* self = static_cast<Mp4Muxer*>(context->opaque);
    if ((flags & AVIO_FLAG_WRITE) != 0 || !self->mOutput->makeReadable()) return AVERROR(EACCES);
    avio_flush(self->mIo->context());
    self->mRereading = AvioFile::forReading(self->mOutput, kIoBufferBytes);
    if (self->mRereading == nullptr) return AVERROR(ENOMEM);
    *io = self->mRereading->context();
    return 0;
}

int Mp4Muxer::closeWritten(AVFormatContext* context, AVIOContext*) {
    static_cast<Mp4Muxer*>(context->opaque)->mRereading.reset();
    return 0;
}

// FFmpeg's errors are -errno, or codes of its own that have no meaning for others.
status_t Mp4Muxer::keep(int result) {
    if (result >= 0 || mError != OK) return mError;
    mError = result > -4096 ? result : ERROR_MALFORMED;
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "writing fails: %d", mError);
    if (observer() != nullptr && result > -4096) observer()->onWriteError(-result);
    return mError;
}

}  // namespace qmmediaeditor
}  // namespace android
