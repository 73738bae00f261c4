#include <media/stagefright/Utils.h>
#include <media/stagefright/foundation/ABuffer.h>

namespace android {

void convertMessageToMetaData(const sp<AMessage>& format, sp<MetaData>& meta) {
    AString mime;
    if (format->findString("mime", &mime)) meta->setCString(kKeyMIMEType, mime.c_str());

    static constexpr struct {
        const char* name;
        uint32_t key;
    } kInt32s[] = {
        {"width", kKeyWidth},
        {"height", kKeyHeight},
        {"stride", kKeyStride},
        {"slice-height", kKeySliceHeight},
        {"color-format", kKeyColorFormat},
        {"rotation-degrees", kKeyRotation},
        {"channel-count", kKeyChannelCount},
        {"sample-rate", kKeySampleRate},
        {"bitrate", kKeyBitRate},
        {"max-input-size", kKeyMaxInputSize},
    };
    for (const auto& [name, key] : kInt32s) {
        int32_t value;
        if (format->findInt32(name, &value)) meta->setInt32(key, value);
    }

    int64_t durationUs;
    if (format->findInt64("durationUs", &durationUs)) meta->setInt64(kKeyDuration, durationUs);

    // A frame rate comes as an integer from extractors and as a float from encoders.
    float rate;
    int32_t wholeRate;
    if (format->findFloat("frame-rate", &rate)) {
        meta->setInt32(kKeyFrameRate, static_cast<int32_t>(rate + 0.5f));
    } else if (format->findInt32("frame-rate", &wholeRate)) {
        meta->setInt32(kKeyFrameRate, wholeRate);
    }

    sp<ABuffer> csd;
    if (format->findBuffer("csd-0", &csd) && csd != nullptr) {
        meta->setData(fourCharCode("csd0"), 0, csd->data(), csd->size());
    }
    if (format->findBuffer("csd-1", &csd) && csd != nullptr) {
        meta->setData(fourCharCode("csd1"), 0, csd->data(), csd->size());
    }
}

}  // namespace android
