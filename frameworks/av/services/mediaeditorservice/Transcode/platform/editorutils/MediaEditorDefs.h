// MIME types of tracks that must be skipped.
#pragma once

namespace android {
namespace qmmediaeditor {

extern const char* MEDIAEDITOR_MIMETYPE_AUDIO_NOTSUPPORTED;
extern const char* MEDIAEDITOR_MIMETYPE_VIDEO_NOTSUPPORTED;

}  // namespace qmmediaeditor
}  // namespace android
