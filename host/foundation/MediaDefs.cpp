#include <editorutils/MediaEditorDefs.h>
#include <media/stagefright/foundation/MediaDefs.h>

namespace android {

const char* MEDIA_MIMETYPE_VIDEO_VP8 = "video/x-vnd.on2.vp8";
const char* MEDIA_MIMETYPE_VIDEO_VP9 = "video/x-vnd.on2.vp9";
const char* MEDIA_MIMETYPE_VIDEO_AV1 = "video/av01";
const char* MEDIA_MIMETYPE_VIDEO_AVC = "video/avc";
const char* MEDIA_MIMETYPE_VIDEO_HEVC = "video/hevc";
const char* MEDIA_MIMETYPE_VIDEO_MPEG4 = "video/mp4v-es";
const char* MEDIA_MIMETYPE_VIDEO_H263 = "video/3gpp";
const char* MEDIA_MIMETYPE_VIDEO_MPEG2 = "video/mpeg2";
const char* MEDIA_MIMETYPE_VIDEO_RAW = "video/raw";

const char* MEDIA_MIMETYPE_AUDIO_AMR_NB = "audio/3gpp";
const char* MEDIA_MIMETYPE_AUDIO_AMR_WB = "audio/amr-wb";
const char* MEDIA_MIMETYPE_AUDIO_MPEG = "audio/mpeg";
const char* MEDIA_MIMETYPE_AUDIO_AAC = "audio/mp4a-latm";
const char* MEDIA_MIMETYPE_AUDIO_VORBIS = "audio/vorbis";
const char* MEDIA_MIMETYPE_AUDIO_OPUS = "audio/opus";
const char* MEDIA_MIMETYPE_AUDIO_RAW = "audio/raw";
const char* MEDIA_MIMETYPE_AUDIO_FLAC = "audio/flac";
const char* MEDIA_MIMETYPE_AUDIO_AC3 = "audio/ac3";
const char* MEDIA_MIMETYPE_AUDIO_EAC3 = "audio/eac3";

const char* MEDIA_MIMETYPE_CONTAINER_MPEG4 = "video/mp4";

namespace qmmediaeditor {

const char* MEDIAEDITOR_MIMETYPE_AUDIO_NOTSUPPORTED = "audio/x-notsupported";
const char* MEDIAEDITOR_MIMETYPE_VIDEO_NOTSUPPORTED = "video/x-notsupported";

}  // namespace qmmediaeditor
}  // namespace android
