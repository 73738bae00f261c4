// The platform on this machine: FFmpeg's libraries behind the codecs, the extractor and the writer,
// zimg and libswresample behind the converters.
#pragma once

#include <Platform.h>
#include <media/stagefright/foundation/AMessage.h>
#include <stdint.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace android {
namespace qmmediaeditor {

// Results of HostOptions::checksEncoding; times are those of the output.
struct FrameCheck {
    int64_t timeUs = 0;
    // The structural similarity of the decoded frame and the encoder's input; nothing when the
    // frame could not be decoded.
    std::optional<double> ssim;
    // The encoder cannot have made it of this input: it is damaged, or another frame.
    bool isWrong = false;
};
struct AudioCheck {
    int64_t timeUs = 0;
    int64_t durationUs = 0;
    // Mean squares, 1 for full scale.
    double inputPower = 0;
    double outputPower = 0;
    // How much later than the input the output is; nothing for silence, and for audio that has no
    // resemblance to its input.
    std::optional<int64_t> offsetUs;
};

// Receives facts about a session beside its result code. Called on the threads of the session and
// of its codecs, several at a time; an operation must not block and must not call the session.
class HostObserver {
public:
    virtual ~HostObserver() = default;

    // The first read of the input that failed, with its errno and its offset in bytes. ESTALE means
    // that the file has become shorter than it was.
    virtual void onReadError(int /* error */, int64_t /* offsetBytes */) {}
    // The first write of the output that failed, with its errno.
    virtual void onWriteError(int /* error */) {}

    // The reason for which the input is refused: it exceeds a limit that protects memory and time.
    // The session then fails with the code of the operation that found it. May be called again; the
    // first reason counts.
    virtual void onRefused(const std::string& /* reason */) {}

    // The timestamps of the input jump, as where recordings were joined. The samples behind the
    // jump follow those in front of it without a gap. May be called again.
    virtual void onDiscontinuity() {}

    // A decoder was opened for the video or the audio track; `name` is libavcodec's, such as
    // "h264".
    virtual void onDecoderOpened(bool /* isVideo */, const std::string& /* name */) {}
    // An encoder was opened; `name` is libavcodec's, and `format` has the settings that it was
    // given, under the platform's keys ("width", "bitrate", …). Not to be changed.
    virtual void onEncoderOpened(bool /* isVideo */, const std::string& /* name */,
                                 const sp<AMessage>& /* format */) {}
    // The session has taken this frame, or this audio, from a decoder; `timeUs` is its timestamp in
    // the input. It uses what begins in one of its periods. On the thread of process(), in the
    // order of the output.
    virtual void onFrameDecoded(int64_t /* timeUs */) {}
    virtual void onAudioDecoded(int64_t /* timeUs */, int64_t /* samplesPerChannel */,
                                int /* sampleRate */) {}
    // A decoder has skipped a packet that it could not decode.
    virtual void onPacketSkipped(bool /* isVideo */) {}

    // The decoder has output an interlaced frame of the kept periods. It is passed on as it is when
    // it could not be deinterlaced, or was not to be.
    virtual void onInterlacedFrame(bool /* wasDeinterlaced */) {}
    // Why interlaced frames are passed on as they are, although HostOptions::deinterlace is true.
    virtual void onDeinterlacingFailed(const std::string& /* reason */) {}

    // The writer has got the first sample of the output.
    virtual void onFirstSample() {}
    // The video encoder has accepted the frame with this timestamp of the output.
    virtual void onFrameEncoded(int64_t /* timeUs */) {}
    // The audio encoder has accepted this number of samples per channel.
    virtual void onAudioEncoded(int64_t /* samples */, int /* sampleRate */) {}
    // The audio that the encoder gets, before its gain: interleaved samples, `frames` for each
    // channel, which are valid during the call.
    virtual void onAudio(const int16_t* /* samples */, int64_t /* frames */, int /* channels */,
                         int /* sampleRate */) {}
    // With HostOptions::checksEncoding: an encoder has output a packet with this timestamp and this
    // checksum of its data.
    virtual void onPacketEncoded(bool /* isVideo */, int64_t /* timeUs */,
                                 uint64_t /* checksum */) {}
    // In timestamp order. The audio is checked in pieces of a second.
    virtual void onFrameChecked(const FrameCheck& /* frame */) {}
    virtual void onAudioChecked(const AudioCheck& /* audio */) {}
    // Why the output of an encoder cannot be checked. Other checks of this encoder do not follow.
    virtual void onCheckFailed(const std::string& /* reason */) {}
    // The writer has got the first sample of a track, with this timestamp of the output.
    virtual void onTrackStart(bool /* isVideo */, int64_t /* timeUs */) {}
    // The end of the last video frame of the output. Not called when it is unknown: the frame then
    // has the duration of the one before it.
    virtual void onVideoEnd(int64_t /* timeUs */) {}
};

// In pixels.
struct FrameSize {
    int width = 0;
    int height = 0;
};

// The tracks that a session uses, by leaving out others. A track that is left out is reported with
// the unsupported MIME type and with its own one as "left-out-mime".
struct TrackChoice {
    bool video = true;
    bool audio = true;
    // Counted from 1 among the audio tracks; the others are left out. A file with fewer keeps all
    // of them, and 0 stands for all.
    int audioTrack = 0;

    bool operator==(const TrackChoice& other) const {
        return video == other.video && audio == other.audio && audioTrack == other.audioTrack;
    }
};

// The distance between two of HostOptions::audioGains, in microseconds.
constexpr int64_t kAudioGainStepUs = 10000;

// The metadata that an output takes over from its input: creation time, date, title, maker,
// model, software, location and the languages of the tracks.
enum class MetadataPolicy {
    kNone,
    kWithoutLocation,
    kAll,
};

// Choices of the host's user that the component does not know. They belong to the sessions of one
// platform.
struct HostOptions {
    // Speed preset of the AVC encoder, in x264's words.
    std::string avcPreset = "veryfast";
    // Constant quality of the AVC encoder, in x264's CRF: 1 (best) to 51. Without a value, the
    // session's bit rate is the average.
    std::optional<int> avcQuality = std::nullopt;
    // The bit rate that constant quality does not exceed for longer than two seconds, in bits per
    // second. The session's bit rate is not used then.
    std::optional<int64_t> avcMaxBitrate = std::nullopt;
    // Holds the AVC encoder to the session's bit rate in each second, at the cost of quality where
    // the video changes much. Without it, the average of a few seconds may be far above.
    bool holdsAvcBitrate = false;
    // Write the movie box in front of the samples.
    bool fastStart = false;
    // Start and end of each period of the request, in microseconds of the input, rising; empty when
    // nothing is cut. Audio is then cut to the sample, and the last video frame keeps its own
    // duration. Without this value a cut may fall some milliseconds late, which adds up from period
    // to period; audio is passed on in shorter buffers, which takes longer; and the last frame has
    // the duration of the one before it.
    std::optional<std::vector<int64_t>> cutTimesUs;
    // May be null; outlives the sessions.
    HostObserver* observer = nullptr;
    // Threads of each video codec; a decoder that has less to do than the encoder gets fewer. 0:
    // the number of CPUs that this process may use, by its affinity mask and the quota of its
    // control group, but at most 16.
    int threads = 0;
    // Size of the frames that the session encodes, where its request has one. A video decoder then
    // delivers larger frames scaled down to it.
    std::optional<FrameSize> frameSize = std::nullopt;
    TrackChoice tracks = {};
    // Factors for the audio of the output, one for the middle of each step of kAudioGainStepUs, and
    // interpolated between these; the last one counts for the rest. Samples beyond full scale are
    // clipped. Empty: the audio is not changed.
    std::vector<float> audioGains = {};
    // False: the audio goes to HostObserver::onAudio only, and the output has none.
    bool encodesAudio = true;
    // Except with kAll, the extractor does not report uuid boxes whose XMP has a location either.
    MetadataPolicy metadata = MetadataPolicy::kWithoutLocation;
    // Turns frames that are marked as interlaced into progressive ones, one for the two fields of
    // each. libavfilter, which does this, is loaded from the system's library directories when the
    // first interlaced frame arrives.
    bool deinterlace = true;
    // Decodes what the encoders make and compares it with their input; the observer gets the
    // results. Needs libavfilter, and the memory for the frames inside the encoder.
    bool checksEncoding = false;
    // The first video frame at or after this time of the output is a key frame, from which the next
    // ones are counted.
    std::optional<int64_t> keyFrameUs = std::nullopt;
    // The output's video has timestamps in microseconds, as a part that is joined later.
    bool isPart = false;
};

// The number of threads of a codec when HostOptions::threads is 0. It depends on files of /proc and
// /sys: a process that gives up the right to open files calls it before that.
int defaultThreads();

// Settings of FFmpeg's libraries and of liblog that they have for the process only, and so for its
// other users of these libraries as well.
struct ProcessOptions {
    // Limits each allocation of these libraries to 256 MiB, because a few bytes of input can ask
    // for any amount. This cannot be undone.
    bool limitsAllocations = false;
    // Passes the messages of these libraries on to the log of liblog, with the tag "FFmpeg".
    // Otherwise they go where the process has them go: by default, to standard error.
    bool forwardsLibraryLog = false;
    // Prints nothing on standard error, neither messages of these libraries nor those of liblog
    // below a failed check.
    bool isQuiet = false;
};

// Nothing else that the library does changes the process: not its signals, its locale, its log or
// its allocator. To be called before the first session; optional.
void configureProcess(const ProcessOptions& options);

// A platform for sessions with these options: the argument of TranscodeComponent::create, or of
// Platform::install. Any number of sessions may use it at once; each keeps what it needs, so that
// the host may release it. A session does not probe an input again that an extractor of this
// platform, or of `predecessor`, has opened without reading its samples; `predecessor` is a host
// platform or null.
std::shared_ptr<Platform> createHostPlatform(const HostOptions& options,
                                             const Platform* predecessor = nullptr);

}  // namespace qmmediaeditor
}  // namespace android
