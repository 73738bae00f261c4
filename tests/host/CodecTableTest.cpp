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

namespace android::qmmediaeditor {
namespace {

template <typename Row>
std::string readmeRow(const std::string& title, const std::vector<Row>& rows) {
    std::string text;
    for (const Row& row : rows) text += (text.empty() ? "" : ", ") + std::string(row.name);
    return "\n| " + title + " | " + text + " |";
}

TEST(CodecTableTest, readmeNamesTheSameOnes) {
    std::stringstream readme;
    readme << std::ifstream(QM_SOURCE_DIR "/README.md").rdbuf();
    for (const std::string& row :
         {readmeRow("containers", inputContainers()), readmeRow("video", inputVideoCodecs()),
          readmeRow("audio", inputAudioCodecs())}) {
        EXPECT_NE(std::string::npos, readme.str().find(row)) << row;
    }
}

// The demuxer opens the first decoder of a codec, and a list without it would stop it.
TEST(CodecTableTest, eachDecoderIsTheOneThatLibavcodecFindsByItself) {
    for (const auto& [codecs, type] : {std::pair(inputVideoCodecs(), AVMEDIA_TYPE_VIDEO),
                                       std::pair(inputAudioCodecs(), AVMEDIA_TYPE_AUDIO)}) {
        for (const CodecInfo& codec : codecs) {
            std::istringstream names(codec.decoders);
            for (std::string name; std::getline(names, name, ',');) {
                const AVCodec* decoder = avcodec_find_decoder_by_name(name.c_str());
                ASSERT_NE(nullptr, decoder) << name;
                EXPECT_EQ(type, decoder->type) << name;
                EXPECT_EQ(decoder, avcodec_find_decoder(decoder->id)) << name;
                EXPECT_EQ(decoder, decoderOf(decoder->id)) << name;
            }
        }
    }
    EXPECT_EQ(nullptr, decoderOf(AV_CODEC_ID_CINEPAK));
    for (const ContainerInfo& container : inputContainers()) {
        EXPECT_NE(nullptr, av_find_input_format(container.demuxer)) << container.name;
    }
}

// libavcodec's AAC encoder lists the rates that it takes; a rate of ours that it lacks would fail
// only when somebody asks for it.
TEST(CodecTableTest, aacSampleRatesAreThoseOfTheEncoder) {
    const CodecInfo* aac = findEncodedCodec("audio/mp4a-latm");
    ASSERT_NE(nullptr, aac);
    std::vector<int> rates;
    const int* rate = encoderOf(aac->mime)->supported_samplerates;
    while (*rate != 0) rates.push_back(*rate++);
    EXPECT_EQ(rates, aac->limits.sampleRates);
}

TEST(CodecTableTest, aFormatThatNamesOnlyItsMimeTypeGetsTheUsualDecoder) {
    EXPECT_EQ(AV_CODEC_ID_MP3, decoderIdOf("audio/mpeg"));
    EXPECT_EQ(AV_CODEC_ID_H263, decoderIdOf("video/3gpp"));
    EXPECT_EQ(AV_CODEC_ID_AAC, decoderIdOf("AUDIO/MP4A-LATM"));
    EXPECT_EQ(AV_CODEC_ID_NONE, decoderIdOf("audio/raw"));
    EXPECT_EQ(AV_CODEC_ID_NONE, decoderIdOf("video/x-unknown"));
    EXPECT_EQ(nullptr, encoderOf("video/x-vnd.on2.vp8")) << "no MP4 file holds it";
}

}  // namespace
}  // namespace android::qmmediaeditor
