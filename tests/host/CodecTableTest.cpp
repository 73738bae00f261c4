// The closed list of containers and codecs: what libavformat and libavcodec make of its names, and
// what README says of it.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "host/codec/CodecTable.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace android {
namespace qmmediaeditor {
namespace {

std::vector<std::string> split(const std::string& names) {
    std::vector<std::string> result;
    std::istringstream stream(names);
    for (std::string name; std::getline(stream, name, ',');) result.push_back(name);
    return result;
}

// The second cell of the row of README that begins with `title`.
std::string cellOf(const std::string& title) {
    std::ifstream readme(QM_SOURCE_DIR "/README.md");
    const std::string start = "| " + title + " | ";
    for (std::string line; std::getline(readme, line);) {
        if (line.compare(0, start.size(), start) != 0) continue;
        return line.substr(start.size(), line.find(" |", start.size()) - start.size());
    }
    return "no row of " + title;
}

std::string sentence(const std::vector<InputFormat>& formats) {
    std::string text;
    for (const InputFormat& format : formats) {
        text += (text.empty() ? "" : ", ") + std::string(format.name);
    }
    return text;
}

TEST(InputFormatsTest, readmeNamesTheSameOnes) {
    EXPECT_EQ(sentence(inputContainers()), cellOf("containers"));
    EXPECT_EQ(sentence(inputVideoCodecs()), cellOf("video"));
    EXPECT_EQ(sentence(inputAudioCodecs()), cellOf("audio"));
}

// The demuxer opens the first decoder of a codec, and a list without it would stop it.
TEST(InputFormatsTest, eachDecoderIsTheOneThatLibavcodecFindsByItself) {
    for (const auto& [formats, type] : {std::pair(inputVideoCodecs(), AVMEDIA_TYPE_VIDEO),
                                        std::pair(inputAudioCodecs(), AVMEDIA_TYPE_AUDIO)}) {
        for (const InputFormat& format : formats) {
            for (const std::string& name : split(format.implementations)) {
                const AVCodec* decoder = avcodec_find_decoder_by_name(name.c_str());
                ASSERT_NE(nullptr, decoder) << name;
                EXPECT_EQ(type, decoder->type) << name;
                EXPECT_EQ(decoder, avcodec_find_decoder(decoder->id)) << name;
                EXPECT_EQ(decoder, decoderOf(decoder->id)) << name;
            }
        }
    }
    EXPECT_EQ(nullptr, decoderOf(AV_CODEC_ID_CINEPAK));
}

TEST(InputFormatsTest, eachContainerHasADemuxer) {
    for (const InputFormat& format : inputContainers()) {
        EXPECT_NE(nullptr, av_find_input_format(format.implementations)) << format.name;
    }
}

}  // namespace
}  // namespace qmmediaeditor
}  // namespace android
