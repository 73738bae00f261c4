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

template <typename Row>
std::string namesOf(const std::vector<Row>& rows) {
    std::string text;
    for (const Row& row : rows) text += (text.empty() ? "" : ", ") + std::string(row.name);
    return text;
}

TEST(CodecTableTest, readmeNamesTheSameOnes) {
    EXPECT_EQ(namesOf(inputContainers()), cellOf("containers"));
    EXPECT_EQ(namesOf(inputVideoCodecs()), cellOf("video"));
    EXPECT_EQ(namesOf(inputAudioCodecs()), cellOf("audio"));
}

// The demuxer opens the first decoder of a codec, and a list without it would stop it.
TEST(CodecTableTest, eachDecoderIsTheOneThatLibavcodecFindsByItself) {
    for (const auto& [codecs, type] : {std::pair(inputVideoCodecs(), AVMEDIA_TYPE_VIDEO),
                                       std::pair(inputAudioCodecs(), AVMEDIA_TYPE_AUDIO)}) {
        for (const CodecInfo& codec : codecs) {
            for (const std::string& name : split(codec.decoders)) {
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

TEST(CodecTableTest, eachContainerHasADemuxer) {
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
    const AVCodec* encoder = encoderOf(aac->mime);
    for (const int* rate = encoder->supported_samplerates; *rate != 0; ++rate) {
        rates.push_back(*rate);
    }
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
}  // namespace qmmediaeditor
}  // namespace android
