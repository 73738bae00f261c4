#include <media/stagefright/foundation/MediaDefs.h>
#include <qmtranscode/report/Format.h>
#include <sha2.h>
#include <stdio.h>

namespace android::qmmediaeditor::cli {

namespace {

std::string scaled(int64_t value, const char* unit) {
    const bool mega = value >= 1000000;
    char text[48];
    snprintf(text, sizeof(text), "%.1f %c%s", static_cast<double>(value) / (mega ? 1e6 : 1e3),
             mega ? 'M' : 'k', unit);
    return text;
}

}  // namespace

std::string codecName(const std::string& mime) {
    const struct {
        const char* mime;
        const char* name;
    } kNames[] = {
        {MEDIA_MIMETYPE_VIDEO_AVC, "avc"},       {MEDIA_MIMETYPE_VIDEO_H263, "h263"},
        {MEDIA_MIMETYPE_VIDEO_MPEG4, "mpeg4"},   {MEDIA_MIMETYPE_AUDIO_AAC, "aac"},
        {MEDIA_MIMETYPE_AUDIO_AMR_NB, "amr-nb"}, {MEDIA_MIMETYPE_AUDIO_AMR_WB, "amr-wb"},
    };
    for (const auto& entry : kNames) {
        if (mime == entry.mime) return entry.name;
    }
    return mime;
}

std::string bytesText(int64_t bytes) { return scaled(bytes, "B"); }

std::string bitrateText(int64_t bitsPerSecond) { return scaled(bitsPerSecond, "bit/s"); }

std::string sha256(const std::string& bytes) {
    char text[SHA256_DIGEST_STRING_LENGTH];
    SHA256Data(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), text);
    return text;
}

}  // namespace android::qmmediaeditor::cli
