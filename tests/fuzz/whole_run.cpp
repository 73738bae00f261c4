// A whole session in memory. The first byte says whether it is trimmed and into what it goes; the
// rest is the input file.
//
// A run that does not end is found by libFuzzer's -timeout.
#include <TranscodeComponent.h>
#include <fuzz/MemoryFile.h>
#include <host/Host.h>
#include <qmtranscode/job/MediaFile.h>

using namespace android;
using namespace android::qmmediaeditor;

namespace {

// Large frames and long audio make runs slow and find nothing that small ones do not.
constexpr int32_t kMaxSide = 512;
constexpr int64_t kMaxDurationUs = 20000000;

bool isSmall(const cli::MediaFile& media) {
    if (media.durationUs() > kMaxDurationUs) return false;
    return !media.video || (media.video->width <= kMaxSide && media.video->height <= kMaxSide);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    HostOptions options;
    options.avcPreset = "ultrafast";
    static const std::shared_ptr<Platform> platform = createHostPlatform(options);
    Platform::install(platform);
    __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const MemoryFile input(data + 1, size - 1);
    const std::optional<cli::MediaFile> media = cli::readMediaFile(input.fd()).media;
    if (!media || !isSmall(*media)) return 0;

    const TrimPeriod periods[] = {{100000, 400000}, {600000, 800000}};
    const MemoryFile output;
    TranscodeProperty property;
    property.mInputFd = input.fd();
    // The session closes it.
    property.mOutputFd = dup(output.fd());
    property.mProgressCallback = [](int32_t) {};
    property.mTrimEnabled = (data[0] & 1) != 0;
    property.mPeriodCount = 2;
    property.mPeriods = periods;
    if ((data[0] & 2) != 0) {
        property.mOutputFormat = new AMessage(kOutputFormatWhat);
        property.mOutputFormat->setInt32("file-format", 2);
        property.mOutputFormat->setInt32("video-encoder", 3);
        property.mOutputFormat->setInt32("video-width", 96);
        property.mOutputFormat->setInt32("video-height", 64);
        property.mOutputFormat->setInt32("audio-encoder", 2);
        property.mOutputFormat->setInt32("audio-samplerate", 16000);
    }
    const sp<TranscodeComponent> component = new TranscodeComponent;
    component->create(&property);
    component->process();
    component->destory();
    return 0;
}
