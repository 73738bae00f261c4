#include <android/log.h>
#include <editorutils/MediaEditorDefs.h>

#include "host/Host.h"
#include "host/codec/AudioDecoder.h"
#include "host/codec/AudioEncoder.h"
#include "host/codec/CodecTable.h"
#include "host/codec/HostMediaCodec.h"
#include "host/codec/SessionTimeline.h"
#include "host/codec/VideoDecoder.h"
#include "host/codec/VideoEncoder.h"
#include "host/convert/AudioConverter.h"
#include "host/convert/FrameScaler.h"
#include "host/extractor/FileExtractor.h"
#include "host/extractor/InputProbe.h"
#include "host/foundation/CpuCount.h"
#include "host/writer/FileWriter.h"

extern "C" {
#include <libavutil/log.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

int logPriority(int level) {
    if (level <= AV_LOG_FATAL) return ANDROID_LOG_ERROR;
    if (level <= AV_LOG_ERROR) return ANDROID_LOG_WARN;
    if (level <= AV_LOG_WARNING) return ANDROID_LOG_INFO;
    if (level <= AV_LOG_INFO) return ANDROID_LOG_DEBUG;
    return ANDROID_LOG_VERBOSE;
}

// Most errors of FFmpeg are about damaged input, which is skipped here; so they are logged as
// warnings.
void logFromFFmpeg(void* object, int level, const char* format, va_list arguments) {
    if (level > AV_LOG_INFO) return;
    char line[512];
    thread_local int atLineStart = 1;
    av_log_format_line(object, level, format, arguments, line, sizeof(line), &atLineStart);
    __android_log_print(logPriority(level), "FFmpeg", "%s", line);
}

class HostPlatform : public Platform {
public:
    HostPlatform(const HostOptions& options, const HostPlatform* predecessor)
        : mOptions(options),
          mInputs(predecessor != nullptr && predecessor->mOptions.tracks == options.tracks &&
                          predecessor->mOptions.metadata == options.metadata
                      ? predecessor->mInputs
                      : std::make_shared<InputHandover>()) {
        av_log_set_callback(logFromFFmpeg);
    }

    sp<MediaCodec> createCodec(const sp<ALooper>& looper, const AString& mime, bool encoder,
                               status_t* err) override {
        std::unique_ptr<CodecBackend> backend = encoder ? createEncoder(mime) : createDecoder(mime);
        if (err != nullptr) *err = backend == nullptr ? NAME_NOT_FOUND : OK;
        if (backend == nullptr) return nullptr;
        if (!encoder) {
            return new HostMediaCodec(looper, std::move(backend), nullptr,
                                      [session = session()] { session->noteLoss(); });
        }
        const bool isVideo = mime.startsWithIgnoreCase("video/");
        session()->encoderStarted(isVideo);
        return new HostMediaCodec(looper, std::move(backend), [session = session(), isVideo] {
            session->encoderEnded(isVideo);
        });
    }

    sp<ExtractorBackend> createExtractor() override {
        return createFileExtractor(mOptions, session(), mInputs);
    }
    sp<MediaWriter> createWriter(int fd) override {
        tSession = std::make_shared<SessionTimeline>(mOptions);
        return createFileWriter(fd, mOptions, tSession);
    }
    sp<AudioConverterBackend> createAudioConverter() override { return new AudioConverter; }
    void scale(const ScaleRequest& request) override { scaleFrame(request); }
    void setUuidData(const sp<MediaWriter>& writer, const unsigned char* data, int size) override {
        setWriterUuidData(writer, data, size);
    }
    // The decoder itself converts HDR to the working frame.
    bool getUseDitherType(int* /* type */) override { return false; }

private:
    // A session creates all of its parts on the thread that runs it, the writer first.
    const std::shared_ptr<SessionTimeline>& session() const {
        if (tSession == nullptr) tSession = std::make_shared<SessionTimeline>(mOptions);
        return tSession;
    }

    std::unique_ptr<CodecBackend> createEncoder(const AString& mime) const {
        if (encoderOf(mime) == nullptr) return nullptr;
        if (mime.startsWithIgnoreCase("audio/")) {
            return std::make_unique<AudioEncoder>(mOptions, session());
        }
        return std::make_unique<VideoEncoder>(mOptions, session());
    }

    // A track's codec is known only when the decoder is configured with the track's format.
    std::unique_ptr<CodecBackend> createDecoder(const AString& mime) const {
        if (mime.equalsIgnoreCase(MEDIAEDITOR_MIMETYPE_AUDIO_NOTSUPPORTED) ||
            mime.equalsIgnoreCase(MEDIAEDITOR_MIMETYPE_VIDEO_NOTSUPPORTED)) {
            return nullptr;
        }
        if (mime.startsWithIgnoreCase("audio/")) {
            return std::make_unique<AudioDecoder>(mOptions.cutTimesUs, mOptions.observer);
        }
        if (mime.startsWithIgnoreCase("video/")) {
            return std::make_unique<VideoDecoder>(session(), mOptions.threads, mOptions.frameSize,
                                                  mOptions.deinterlace);
        }
        return nullptr;
    }

    const HostOptions mOptions;
    const std::shared_ptr<InputHandover> mInputs;
    static thread_local std::shared_ptr<SessionTimeline> tSession;
};

thread_local std::shared_ptr<SessionTimeline> HostPlatform::tSession;

}  // namespace

int defaultThreads() { return codecThreads(0); }

std::unique_ptr<Platform> createHostPlatform(const HostOptions& options,
                                             const Platform* predecessor) {
    return std::make_unique<HostPlatform>(options, static_cast<const HostPlatform*>(predecessor));
}

}  // namespace qmmediaeditor
}  // namespace android
