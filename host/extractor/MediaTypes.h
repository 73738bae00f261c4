// The platform's MIME types for what FFmpeg calls by codec and container names. Any thread.
#pragma once

struct AVFormatContext;
struct AVStream;

namespace android {
namespace qmmediaeditor {

// "audio/…" or "video/…" for a track that can be decoded here; the unsupported type of its kind for
// one that cannot; "image/…" for an attached picture; another type for everything else.
const char* mimeOfStream(const AVStream& stream);
const char* mimeOfContainer(const AVFormatContext& context);

// Cover art, for one: a picture that belongs to the file and not to a time.
bool isCoverArt(const AVStream& stream);

// An audio or video track that a decoder here takes.
bool isDecodable(const AVStream& stream);

}  // namespace qmmediaeditor
}  // namespace android
