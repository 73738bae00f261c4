#include "host/writer/PartJoiner.h"

#include <editorutils/MediaEditorDefs.h>
#include <media/stagefright/MediaErrors.h>
#include <media/stagefright/foundation/MediaDefs.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "host/codec/SessionTimeline.h"
#include "host/extractor/Demuxer.h"
#include "host/io/IsoBoxes.h"
#include "host/writer/Mp4Muxer.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr int64_t kWholeFile = INT64_MAX;
constexpr char kUnreadable[] = "a part is damaged; encode its section again";
constexpr char kDifferent[] =
    "the parts have different codec parameters; encode them with the same version and options";

const char* mimeOf(AVCodecID id) {
    switch (id) {
        case AV_CODEC_ID_H264:
            return MEDIA_MIMETYPE_VIDEO_AVC;
        case AV_CODEC_ID_AAC:
            return MEDIA_MIMETYPE_AUDIO_AAC;
        case AV_CODEC_ID_AMR_NB:
            return MEDIA_MIMETYPE_AUDIO_AMR_NB;
        case AV_CODEC_ID_AMR_WB:
            return MEDIA_MIMETYPE_AUDIO_AMR_WB;
        default:
            return nullptr;
    }
}

// The packets of one part, with times of the output.
class PartReader {
public:
    // False for a file without exactly one track that can be joined.
    bool open(const JoinRequest::Part& part, HostObserver* observer) {
        mPart = part;
        const auto opened = DescriptorFile::openForReading(part.fd, 0, kWholeFile, observer);
        if (opened.file == nullptr || checkSampleTables(*opened.file)) return false;
        mDemuxer = Demuxer::open(opened.file, Demuxer::ProbeDepth::kSamples).demuxer;
        mPacket.reset(av_packet_alloc());
        if (mDemuxer == nullptr || mPacket == nullptr) return false;
        return mDemuxer->context().nb_streams == 1 && mimeOf(parameters().codec_id) != nullptr;
    }

    const AVStream& stream() const { return *mDemuxer->context().streams[0]; }
    const AVCodecParameters& parameters() const { return *stream().codecpar; }

    // OK, ERROR_END_OF_STREAM, or why the file cannot be read. Skips packets before `fromUs`.
    status_t next() {
        for (;;) {
            const status_t status = mDemuxer->readPacket(0, mPacket.get());
            if (status != OK) return status;
            if (mPacket->dts == AV_NOPTS_VALUE) return ERROR_MALFORMED;
            if (!mFirstDts) mFirstDts = mPacket->dts;
            const int64_t ticks = mPacket->dts - *mFirstDts;
            mTimeUs = mPart.firstUs + toUs(ticks);
            mEndUs = mPart.firstUs + toUs(ticks + mPacket->duration);
            if (mTimeUs >= mPart.untilUs) return ERROR_END_OF_STREAM;
            if (mTimeUs >= mPart.fromUs) return OK;
        }
    }
    const AVPacket& packet() const { return *mPacket; }
    int64_t timeUs() const { return mTimeUs; }
    int64_t endUs() const { return mEndUs; }

private:
    int64_t toUs(int64_t ticks) const {
        return av_rescale_q(ticks, stream().time_base, {1, 1000000});
    }

    JoinRequest::Part mPart{};
    std::unique_ptr<Demuxer> mDemuxer;
    PacketPtr mPacket;
    std::optional<int64_t> mFirstDts;
    int64_t mTimeUs = 0;
    int64_t mEndUs = 0;
};

bool areAlike(const AVCodecParameters& a, const AVCodecParameters& b) {
    return a.codec_id == b.codec_id && a.width == b.width && a.height == b.height &&
           a.extradata_size == b.extradata_size &&
           std::equal(a.extradata, a.extradata + a.extradata_size, b.extradata);
}

// One track of the output, made of one part after the other.
class JoinedTrack {
public:
    JoinedTrack(std::vector<JoinRequest::Part> parts, HostObserver* observer)
        : mParts(std::move(parts)), mObserver(observer) {}

    // Makes the next packet available; nothing at the end. A text if it cannot be read.
    std::optional<std::string> advance() {
        for (;;) {
            if (mReader == nullptr) {
                if (mNext == mParts.size()) return std::nullopt;
                auto reader = std::make_unique<PartReader>();
                if (!reader->open(mParts[mNext++], mObserver)) return kUnreadable;
                if (mFirst == nullptr) mFirst = copyOf(reader->parameters());
                if (mFirst == nullptr) return "not enough memory";
                if (!areAlike(*mFirst, reader->parameters())) return kDifferent;
                mReader = std::move(reader);
            }
            const status_t status = mReader->next();
            if (status == OK) return std::nullopt;
            if (status != ERROR_END_OF_STREAM) return kUnreadable;
            mLastUs = mReader->timeUs();
            mLastEndUs = mReader->endUs();
            mReader.reset();
        }
    }
    bool hasPacket() const { return mReader != nullptr; }
    // Of the last part that has ended: the time and the end of its last packet, which may be one
    // that was left out because the part before has it as well.
    int64_t lastUs() const { return mLastUs; }
    int64_t lastEndUs() const { return mLastEndUs; }
    const PartReader& current() const { return *mReader; }

    sp<MetaData> format() const {
        const AVCodecParameters& parameters = current().parameters();
        const sp<MetaData> format = new MetaData;
        format->setCString(kKeyMIMEType, mimeOf(parameters.codec_id));
        format->setInt32(kKeyBitRate, static_cast<int32_t>(parameters.bit_rate));
        if (parameters.codec_type == AVMEDIA_TYPE_VIDEO) {
            format->setInt32(kKeyWidth, parameters.width);
            format->setInt32(kKeyHeight, parameters.height);
        } else {
            format->setInt32(kKeySampleRate, parameters.sample_rate);
            format->setInt32(kKeyChannelCount, parameters.ch_layout.nb_channels);
        }
        return format;
    }

private:
    static CodecParametersPtr copyOf(const AVCodecParameters& parameters) {
        CodecParametersPtr copy(avcodec_parameters_alloc());
        const bool isCopied =
            copy != nullptr && avcodec_parameters_copy(copy.get(), &parameters) >= 0;
        return isCopied ? std::move(copy) : nullptr;
    }

    const std::vector<JoinRequest::Part> mParts;
    HostObserver* const mObserver;
    CodecParametersPtr mFirst;  // of the first part
    std::unique_ptr<PartReader> mReader;
    size_t mNext = 0;
    int64_t mLastUs = 0;
    int64_t mLastEndUs = 0;
};

class PartJoiner {
public:
    PartJoiner(const JoinRequest& request, int outputFd)
        : mRequest(request),
          mSession(std::make_shared<SessionTimeline>(optionsOf(request))),
          mOutputFd(outputFd) {}

    std::optional<std::string> run() {
        if (auto reason = begin()) return reason;
        if (auto reason = copyPackets()) return reason;
        const auto* uuid = reinterpret_cast<const uint8_t*>(mRequest.uuidData.data());
        const auto boxes = makeUuidBoxes(uuid, mRequest.uuidData.size());
        return mMuxer->finish(boxes) == OK ? std::nullopt : std::optional<std::string>("");
    }

private:
    static HostOptions optionsOf(const JoinRequest& request) {
        HostOptions options;
        options.observer = request.observer;
        options.metadata = MetadataPolicy::kAll;
        options.cutTimesUs.emplace();
        return options;
    }

    std::optional<std::string> begin();
    std::optional<std::string> addTracks();
    std::optional<std::string> copyPackets();
    std::optional<size_t> earliest() const;
    status_t write(const JoinedTrack& track, size_t index);

    const JoinRequest& mRequest;
    const std::shared_ptr<SessionTimeline> mSession;
    const int mOutputFd;
    std::unique_ptr<Mp4Muxer> mMuxer;
    std::vector<JoinedTrack> mTracks;
};

std::optional<std::string> PartJoiner::begin() {
    mSession->metadata().set(mRequest.metadata);
    mSession->metadata().setLanguage(true, mRequest.videoLanguage);
    mSession->metadata().setLanguage(false, mRequest.audioLanguage);
    if (mRequest.frameRate.numerator > 0) mSession->setFrameRate(mRequest.frameRate);
    const auto output = DescriptorFile::openForWriting(mOutputFd);
    if (output.file == nullptr) return "the output cannot be written";
    mMuxer = std::make_unique<Mp4Muxer>(output.file, mSession);
    if (auto reason = addTracks()) return reason;
    if (mMuxer->begin(mRequest.fileType, mRequest.rotation, mRequest.fastStart) != OK) return "";
    for (size_t i = 0; i < mTracks.size(); ++i) {
        const AVCodecParameters& parameters = mTracks[i].current().parameters();
        mMuxer->setCodecConfig(i, parameters.extradata,
                               static_cast<size_t>(parameters.extradata_size));
    }
    return std::nullopt;
}

// The video track comes first, as in the output of a session.
std::optional<std::string> PartJoiner::addTracks() {
    if (!mRequest.video.empty()) mTracks.emplace_back(mRequest.video, mRequest.observer);
    if (mRequest.audio) mTracks.emplace_back(std::vector{*mRequest.audio}, mRequest.observer);
    for (JoinedTrack& track : mTracks) {
        if (auto reason = track.advance()) return reason;
        if (!track.hasPacket() || mMuxer->addTrack(*track.format()) != OK) return kUnreadable;
    }
    return std::nullopt;
}

std::optional<size_t> PartJoiner::earliest() const {
    std::optional<size_t> result;
    for (size_t i = 0; i < mTracks.size(); ++i) {
        if (!mTracks[i].hasPacket()) continue;
        const int64_t timeUs = mTracks[i].current().timeUs();
        if (!result || timeUs < mTracks[*result].current().timeUs()) result = i;
    }
    return result;
}

std::optional<std::string> PartJoiner::copyPackets() {
    while (const std::optional<size_t> index = earliest()) {
        JoinedTrack& track = mTracks[*index];
        const int64_t timeUs = track.current().timeUs();
        if (write(track, *index) != OK || !mRequest.onProgress(timeUs)) return "";
        const bool isVideo = track.current().parameters().codec_type == AVMEDIA_TYPE_VIDEO;
        if (auto reason = track.advance()) return reason;
        if (track.hasPacket()) continue;
        // A section ends its last frame with itself; one behind it, without frames of its own,
        // knows that frame's end.
        if (isVideo && track.lastUs() == timeUs) {
            mSession->addFrame(timeUs, track.lastEndUs() - timeUs);
        }
        if (mMuxer->endTrack(*index) != OK) return "";
    }
    return std::nullopt;
}

// Tells the observer and the muxer what an encoder tells them.
status_t PartJoiner::write(const JoinedTrack& track, size_t index) {
    const PartReader& reader = track.current();
    const AVPacket& packet = reader.packet();
    HostObserver* const observer = mRequest.observer;
    if (reader.parameters().codec_type == AVMEDIA_TYPE_VIDEO) {
        mSession->addFrame(reader.timeUs(), reader.endUs() - reader.timeUs());
        if (observer != nullptr) observer->onFrameEncoded(reader.timeUs());
    } else {
        mSession->endAudio(reader.endUs());
        // Priming is no audio.
        const int64_t fromUs = std::max<int64_t>(reader.timeUs(), 0);
        const int rate = reader.parameters().sample_rate;
        const int64_t samples = av_rescale(reader.endUs() - fromUs, rate, 1000000);
        if (observer != nullptr && samples > 0) observer->onAudioEncoded(samples, rate);
    }
    return mMuxer->writeSample(index, packet.data, static_cast<size_t>(packet.size),
                               reader.timeUs(), (packet.flags & AV_PKT_FLAG_KEY) != 0);
}

}  // namespace

std::optional<std::string> joinParts(const JoinRequest& request, int outputFd) {
    return PartJoiner(request, outputFd).run();
}

}  // namespace qmmediaeditor
}  // namespace android
