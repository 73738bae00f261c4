// The containers and codecs that are read and written: one table for the decoders, the encoders,
// the extractor, the muxer and the command line.
//
// The list is closed, because each demuxer and decoder that an input can reach is code that an
// attacker can reach. README names the same ones. Any thread.
#pragma once

#include <media/stagefright/foundation/AString.h>
#include <stdint.h>

#include <string>
#include <vector>

struct AVCodec;

namespace android {
namespace qmmediaeditor {

struct ContainerInfo {
    const char* name;     // as README has it
    const char* demuxer;  // libavformat's
    const char* mime;
};

// Limits of an encoder; 0 or empty where only the limits of InputLimits.h apply.
struct EncoderLimits {
    int maxSide = 0;
    std::vector<int> sampleRates;  // falling
    int maxChannels = 0;
};

struct CodecInfo {
    const char* name;      // as README has it
    const char* mime;      // null when the platform and the host have none for it
    const char* decoders;  // libavcodec's, separated by commas
    // For codecs that are written, too. `encoder` is libavcodec's name, null for all others.
    const char* encoder = nullptr;
    const char* sampleEntry = nullptr;  // four characters, in MP4 and 3GP files
    bool only3gp = false;               // MP4 has no registered sample entry for it
    int frameSamples = 0;               // audio samples of one encoded frame
    EncoderLimits limits = {};
};

const std::vector<ContainerInfo>& inputContainers();
const std::vector<CodecInfo>& inputVideoCodecs();
const std::vector<CodecInfo>& inputAudioCodecs();

// For the format_whitelist and the codec_whitelist of libavformat.
const std::string& demuxerNames();
const std::string& decoderNames();

// The decoder for an AVCodecID; null for one that is not listed.
const AVCodec* decoderOf(int codecId);
// The MIME type for an AVCodecID; null when its codec has none.
const char* mimeOfCodec(int codecId);
// The AVCodecID of a decoder for a format that says no more than its MIME type; 0 (none) when it is
// unknown.
int decoderIdOf(const AString& mime);

// The codec that is written for a MIME type; null when none is.
const CodecInfo* findEncodedCodec(const char* mime);
// Its encoder in libavcodec; null when this build of libavcodec lacks it.
const AVCodec* encoderOf(const AString& mime);

// The name of an AVC profile bit in x264's words; null for a profile that is not encoded here.
const char* avcProfileName(int32_t profileBit);

// Demands on a video encoder, as far as a level limits them.
struct VideoDemand {
    int width = 0;
    int height = 0;
    double frameRate = 0;    // frames per second
    int64_t maxBitRate = 0;  // bits per second
};

// The level_idc of an AVC level bit (41 for level 4.1), or 0 when the level is unknown or does not
// allow the demand (ITU-T H.264, annex A).
int avcLevelFor(int32_t levelBit, const VideoDemand& demand);
// The lowest level that allows the demand, else the highest: the low four bits of
// profile_and_level_indication for MPEG-4 Simple profile (ISO/IEC 14496-2, annex N), and the level
// of H.263 (ITU-T H.263, annex X).
int mpeg4LevelFor(const VideoDemand& demand);
int h263LevelFor(const VideoDemand& demand);

}  // namespace qmmediaeditor
}  // namespace android
