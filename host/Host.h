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

    // A decoder was opened for the video or the audio track; `name` is libavcodec's, such as
    // "h264".
    virtual void onDecoderOpened(bool /* isVideo */, const std::string& /* name */) {}
    // An encoder was opened; `name` is libavcodec's, and `format` has the settings that it was
    // given, under the platform's keys ("width", "bitrate", …). Not to be changed.
    virtual void onEncoderOpened(bool /* isVideo */, const std::string& /* name */,
                                 const sp<AMessage>& /* format */) {}
    // A decoder has skipped a packet that it could not decode.
    virtual void onPacketSkipped(bool /* isVideo */) {}

    // The writer has got the first sample of the output.
    virtual void onFirstSample() {}
    // The video encoder has accepted the frame with this timestamp of the output.
    virtual void onFrameEncoded(int64_t /* timeUs */) {}
    // The audio encoder has accepted this number of samples per channel.
    virtual void onAudioEncoded(int64_t /* samples */, int /* sampleRate */) {}
    // The end of the last video frame of the output. Not called when it is unknown: the frame then
    // has the duration of the one before it.
    virtual void onVideoEnd(int64_t /* timeUs */) {}
};

// In pixels.
struct FrameSize {
    int width = 0;
    int height = 0;
};

// Choices of the host's user that the component does not know.
struct HostOptions {
    // Speed preset of the AVC encoder, in x264's words.
    std::string avcPreset = "veryfast";
    // Write the movie box in front of the samples.
    bool fastStart = false;
    // Start and end of each period of the request, in microseconds of the input, rising; empty when
    // nothing is cut. Audio is then cut to the sample, and the last video frame keeps its own
    // duration. Without this value a cut may fall some milliseconds late, which adds up from period
    // to period; audio is passed on in shorter buffers, which takes longer; and the last frame has
    // the duration of the one before it.
    std::optional<std::vector<int64_t>> cutTimesUs;
    // May be null; outlives the platform.
    HostObserver* observer = nullptr;
    // Threads of each video codec; a decoder that has less to do than the encoder gets fewer. 0:
    // the number of CPUs that this process may use, by its affinity mask and the quota of its
    // control group, but at most 16.
    int threads = 0;
    // Size of the frames that the session encodes, where its request has one. A video decoder then
    // delivers larger frames scaled down to it.
    std::optional<FrameSize> frameSize = std::nullopt;
};

// The number of threads of a codec when HostOptions::threads is 0. It depends on files of /proc and
// /sys: a process that gives up the right to open files calls it before that.
int defaultThreads();

// Limits each allocation of FFmpeg's libraries to 256 MiB, because a few bytes of input can ask for
// any amount. This cannot be undone and applies to the whole process, including its other users of
// these libraries; so the host does not call it. To be called before the first session.
void limitAllocations();

// The argument of Platform::install; to be kept until the last session is destroyed. A session does
// not probe an input again that an extractor of this platform, or of `predecessor`, has opened
// without reading its samples; `predecessor` is a host platform or null.
std::unique_ptr<Platform> createHostPlatform(const HostOptions& options,
                                             const Platform* predecessor = nullptr);

}  // namespace qmmediaeditor
}  // namespace android
