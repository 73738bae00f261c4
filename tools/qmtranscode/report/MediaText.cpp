#include <media/stagefright/foundation/MediaDefs.h>
#include <qmtranscode/report/MediaText.h>
#include <sha2.h>
#include <stdint.h>

#include <algorithm>
#include <iterator>

namespace android::qmmediaeditor::cli {

std::string codecName(const std::string& mime) {
    static const struct {
        const char* mime;
        const char* name;
    } kNames[] = {
        {MEDIA_MIMETYPE_VIDEO_AVC, "avc"},       {MEDIA_MIMETYPE_VIDEO_H263, "h263"},
        {MEDIA_MIMETYPE_VIDEO_MPEG4, "mpeg4"},   {MEDIA_MIMETYPE_AUDIO_AAC, "aac"},
        {MEDIA_MIMETYPE_AUDIO_AMR_NB, "amr-nb"}, {MEDIA_MIMETYPE_AUDIO_AMR_WB, "amr-wb"},
    };
    const auto* found = std::find_if(std::begin(kNames), std::end(kNames),
                                     [&mime](const auto& entry) { return mime == entry.mime; });
    return found == std::end(kNames) ? mime : found->name;
}

std::string sha256(const std::string& bytes) {
    char text[SHA256_DIGEST_STRING_LENGTH];
    SHA256Data(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), text);
    return text;
}

}  // namespace android::qmmediaeditor::cli
