// The real platform with one fault in it: a codec that fails or stalls, an extractor that ends
// early, a writer that sends an event.
//
// A script is set while no session lives. Everything that it does not name is the real thing.
#pragma once

#include <Platform.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>

namespace android::qmmediaeditor {

struct FaultScript {
    enum class Part {
        kNone,
        kAudioEncoder,
        kVideoEncoder,
        kAudioDecoder,
        kVideoDecoder,
        kExtractor,
        kWriter
    };
    enum class What {
        kNotCreated,  // codecs only, as the next five
        kNotConfigured,
        kNotStarted,
        kInputFails,   // queueInputBuffer
        kOutputFails,  // dequeueOutputBuffer
        kStalls,       // no further output, until the codec is stopped
        kFormatLate,   // decoders: the format change comes before output `at`
        kFormatAgain,  // decoders: it comes a second time there
        kEnds,         // the extractor, after `at` samples
        kEvent,        // the writer, before its sample `at`: `message` and `detail`
        kReadFails,    // in place of sample `at`: of the extractor, or of the writer's sources
    };

    Part part = Part::kNone;
    What what = What::kEnds;
    uint64_t at = 0;  // counted from 0, without end and format changes
    int message = 0;
    int detail = 0;
};

// When the fault has happened.
class FaultClock {
public:
    typedef std::chrono::steady_clock::time_point TimePoint;

    // Only the first call counts.
    void strike();
    // False when it did not happen within `bound`.
    bool waitFor(std::chrono::seconds bound);
    TimePoint at() const;

private:
    mutable std::mutex mLock;
    std::condition_variable mStruck;
    bool mHasStruck = false;
    TimePoint mAt;
};

class FaultPlatform final : public Platform {
public:
    explicit FaultPlatform(std::unique_ptr<Platform> real) : mReal(std::move(real)) {}

    // Returns the clock of the new script.
    std::shared_ptr<FaultClock> setScript(const FaultScript& script);

    sp<MediaCodec> createCodec(const sp<ALooper>& looper, const AString& mime, bool encoder,
                               status_t* err) override;
    sp<ExtractorBackend> createExtractor() override;
    sp<MediaWriter> createWriter(int fd) override;
    sp<AudioConverterBackend> createAudioConverter() override;
    void scale(const ScaleRequest& request) override { mReal->scale(request); }
    void setUuidData(const sp<MediaWriter>& writer, const unsigned char* data, int size) override;
    bool getUseDitherType(int* type) override { return mReal->getUseDitherType(type); }

private:
    bool concerns(FaultScript::Part part) const { return mScript.part == part; }

    const std::unique_ptr<Platform> mReal;
    FaultScript mScript;
    std::shared_ptr<FaultClock> mClock;
};

}  // namespace android::qmmediaeditor
