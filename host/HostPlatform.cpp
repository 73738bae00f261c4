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
        : HostPlatform(options,
                       predecessor != nullptr && predecessor->mOptions.tracks == options.tracks &&
                               predecessor->mOptions.metadata == options.metadata
                           ? predecessor->mInputs
                           : std::make_shared<InputHandover>(),
                       nullptr) {}

    std::shared_ptr<Platform> createSession() override {
        return std::shared_ptr<Platform>(
            new HostPlatform(mOptions, mInputs, std::make_shared<SessionTimeline>(mOptions)));
    }

    sp<MediaCodec> createCodec(const sp<ALooper>& looper, const AString& mime, bool encoder,
                               status_t* err) override {
        std::unique_ptr<CodecBackend> backend = encoder ? createEncoder(mime) : createDecoder(mime);
        if (err != nullptr) *err = backend == nullptr ? NAME_NOT_FOUND : OK;
        if (backend == nullptr) return nullptr;
        const bool isVideo = mime.startsWithIgnoreCase("video/");
        const std::shared_ptr<SessionTimeline> timeline = session();
        if (!encoder) {
            return new HostMediaCodec(
                looper, std::move(backend), nullptr, [timeline] { timeline->reportLoss(); },
                observeOutputs(isVideo));
        }
        timeline->encoderStarted(isVideo);
        return new HostMediaCodec(looper, std::move(backend),
                                  [timeline, isVideo] { timeline->encoderEnded(isVideo); });
    }

    sp<ExtractorBackend> createExtractor() override {
        return createFileExtractor(mOptions, session(), mInputs);
    }
    sp<MediaWriter> createWriter(int fd) override {
        return createFileWriter(fd, mOptions, session());
    }
    sp<AudioConverterBackend> createAudioConverter() override { return new AudioConverter; }
    void scale(const ScaleRequest& request) override { scaleFrame(request); }
    void setUuidData(const sp<MediaWriter>& writer, const unsigned char* data, int size) override {
        setWriterUuidData(writer, data, size);
    }
    // The decoder itself converts HDR to the working frame.
    bool getUseDitherType(int* /* type */) override { return false; }

private:
    HostPlatform(const HostOptions& options, std::shared_ptr<InputHandover> inputs,
                 std::shared_ptr<SessionTimeline> session)
        : mOptions(options), mInputs(std::move(inputs)), mSession(std::move(session)) {}

    // Parts that are made outside of a session share nothing.
    std::shared_ptr<SessionTimeline> session() const {
        return mSession != nullptr ? mSession : std::make_shared<SessionTimeline>(mOptions);
    }

    HostMediaCodec::OnOutput observeOutputs(bool isVideo) const {
        HostObserver* const observer = mOptions.observer;
        if (observer == nullptr) return nullptr;
        if (isVideo) {
            return [observer](const sp<AMessage>&, int64_t timeUs, size_t) {
                observer->onFrameDecoded(timeUs);
            };
        }
        return [observer](const sp<AMessage>& format, int64_t timeUs, size_t bytes) {
            int32_t sampleRate = 0;
            int32_t channels = 0;
            if (format == nullptr || !format->findInt32("sample-rate", &sampleRate) ||
                !format->findInt32("channel-count", &channels) || channels < 1) {
                return;
            }
            const size_t frameBytes = static_cast<size_t>(channels) * sizeof(int16_t);
            observer->onAudioDecoded(timeUs, static_cast<int64_t>(bytes / frameBytes), sampleRate);
        };
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
            return std::make_unique<VideoDecoder>(mOptions, session());
        }
        return nullptr;
    }

    const HostOptions mOptions;
    const std::shared_ptr<InputHandover> mInputs;
    const std::shared_ptr<SessionTimeline> mSession;  // null outside of a session
};

}  // namespace

int defaultThreads() { return codecThreads(0); }

void configureProcess(const ProcessOptions& options) {
    if (options.forwardsLibraryLog) av_log_set_callback(logFromFFmpeg);
    if (options.limitsAllocations) limitAllocations();
    if (options.isQuiet) {
        av_log_set_level(AV_LOG_QUIET);
        __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
    }
}

std::shared_ptr<Platform> createHostPlatform(const HostOptions& options,
                                             const Platform* predecessor) {
    return std::make_shared<HostPlatform>(options, static_cast<const HostPlatform*>(predecessor));
}

}  // namespace qmmediaeditor
}  // namespace android
