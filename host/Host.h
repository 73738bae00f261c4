// The platform on this machine: FFmpeg's libraries behind the codecs, the extractor and the writer,
// zimg and libswresample behind the converters.
#pragma once

#include <Platform.h>
#include <stdint.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace android {
namespace qmmediaeditor {

// Hears what a session's result code does not say. Called on the threads of the session and of its
// codecs, several at a time; an operation must not block and must not call the session.
class HostObserver {
public:
    virtual ~HostObserver() = default;

    // The first read of the input that failed, with its errno and its offset in bytes. ESTALE means
    // that the file has become shorter than it was.
    virtual void onReadError(int /* error */, int64_t /* offsetBytes */) {}
    // The first write of the output that failed, with its errno.
    virtual void onWriteError(int /* error */) {}

    // Why the input is refused: it exceeds a limit that protects memory and time. The session then
    // fails with the code of the operation that found it. May be called again; the first reason
    // counts.
    virtual void onRefused(const std::string& /* reason */) {}

    // The output has got its first sample.
    virtual void onFirstSample() {}
    // The video encoder has accepted the frame that is shown at this time of the output.
    virtual void onFrameEncoded(int64_t /* timeUs */) {}
    // The audio encoder has accepted so many samples of each channel.
    virtual void onAudioEncoded(int64_t /* samples */, int /* sampleRate */) {}
    // The last video frame of the output is shown until this time. Not called when that is unknown:
    // the frame then lasts as long as the one before it.
    virtual void onVideoEnd(int64_t /* timeUs */) {}
};

// What a user of the host may choose and the component knows nothing of.
struct HostOptions {
    // Speed preset of the AVC encoder, in x264's words.
    std::string avcPreset = "veryfast";
    // Put the movie box in front of the samples.
    bool fastStart = false;
    // Start and end of each period of the request, in microseconds on the input's time line,
    // rising; empty when nothing is cut. Audio is then cut to the sample, and the last video frame
    // keeps its own duration. Where it is absent, a cut may fall some milliseconds late, which adds
    // up from period to period, audio moves in shorter pieces, which takes longer, and the last
    // frame lasts as long as the one before it.
    std::optional<std::vector<int64_t>> cutTimesUs;
    // May be null; outlives the platform.
    HostObserver* observer = nullptr;
    // Threads of each video codec. 0: as many as this process may use CPUs, by its affinity mask
    // and the quota of its control group, but at most 16.
    int threads = 0;
};

// The number of threads that a codec has where HostOptions::threads is 0. It depends on files of
// /proc and /sys: a process that gives up the right to open files calls it before that.
int defaultThreads();

// Limits each allocation of FFmpeg's libraries to 256 MiB, because a few bytes of input can ask for
// any amount. Irrevocable and for the whole process, including its other users of these libraries,
// so that the host does not call it by itself. Call it before the first session.
void limitAllocations();

// To be given to Platform::install, and to be kept until the last session is gone.
std::unique_ptr<Platform> createHostPlatform(const HostOptions& options);

}  // namespace qmmediaeditor
}  // namespace android
