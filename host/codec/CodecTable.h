// The containers and codecs that are read: a closed list, because each demuxer and decoder of
// libavformat and libavcodec that an input can reach is code that an attacker can reach. README
// names the same ones. Any thread.
#pragma once

#include <string>
#include <vector>

struct AVCodec;

namespace android {
namespace qmmediaeditor {

struct InputFormat {
    const char* name;  // as README has it
    // Names of the demuxers or decoders, separated by commas.
    const char* implementations;
};

const std::vector<InputFormat>& inputContainers();
const std::vector<InputFormat>& inputVideoCodecs();
const std::vector<InputFormat>& inputAudioCodecs();

// For the format_whitelist and the codec_whitelist of libavformat.
const std::string& demuxerNames();
const std::string& decoderNames();

// The decoder for an AVCodecID; null for one that is not listed.
const AVCodec* decoderOf(int codecId);

}  // namespace qmmediaeditor
}  // namespace android
