// Deinterlacing of frames made in memory: a vertical edge that moves from field to field.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "host/convert/Deinterlacer.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
}

namespace android::qmmediaeditor {
namespace {

constexpr int kWidth = 64;
constexpr int kHeight = 48;

// Of an 8-bit format, or of more bits with values below 256.
FramePtr makeFrame(int number, bool interlaced, AVPixelFormat format = AV_PIX_FMT_YUV420P,
                   int width = kWidth) {
    FramePtr frame(av_frame_alloc());
    frame->format = format;
    frame->width = width;
    frame->height = kHeight;
    EXPECT_EQ(0, av_frame_get_buffer(frame.get(), 0));
    // Lines are written by setting bits.
    for (AVBufferRef* buffer : frame->buf) {
        if (buffer != nullptr) memset(buffer->data, 0, buffer->size);
    }
    frame->pts = number * 40000 + 7;
    frame->pkt_duration = 40000 + number;
    frame->interlaced_frame = interlaced ? 1 : 0;
    frame->top_field_first = 1;
    const AVPixFmtDescriptor& description = *av_pix_fmt_desc_get(format);
    std::vector<uint16_t> line(static_cast<size_t>(width), 128);
    for (int i = 0; i < description.nb_components; ++i) {
        const int rows = i == 0 ? kHeight : AV_CEIL_RSHIFT(kHeight, int{description.log2_chroma_h});
        const int columns = i == 0 ? width : AV_CEIL_RSHIFT(width, int{description.log2_chroma_w});
        for (int y = 0; y < rows; ++y) {
            const int edge = number * 8 + (interlaced && y % 2 == 1 ? 4 : 0);
            for (int x = 0; i == 0 && x < width; ++x) {
                line[static_cast<size_t>(x)] = x < edge ? 200 : 40;
            }
            av_write_image_line2(line.data(), frame->data, frame->linesize, &description, 0, y, i,
                                 columns, sizeof(uint16_t));
        }
        std::fill(line.begin(), line.end(), uint16_t{128});
    }
    return frame;
}

// The largest difference of a row to both of its neighbours, in the same direction.
int comb(const AVFrame& frame) {
    const AVPixFmtDescriptor& description =
        *av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
    std::vector<std::vector<uint16_t>> rows;
    for (int y = 0; y < frame.height; ++y) {
        rows.emplace_back(static_cast<size_t>(frame.width));
        av_read_image_line2(rows.back().data(), const_cast<const uint8_t**>(frame.data),
                            frame.linesize, &description, 0, y, 0, frame.width, 0,
                            sizeof(uint16_t));
    }
    int largest = 0;
    // The outermost rows have neighbours on one side only.
    for (size_t y = 4; y + 4 < rows.size(); ++y) {
        for (size_t x = 0; x < rows[y].size(); ++x) {
            const int above = rows[y][x] - rows[y - 1][x];
            const int below = rows[y][x] - rows[y + 1][x];
            if (above * below > 0) largest = std::max(largest, std::min(abs(above), abs(below)));
        }
    }
    return largest;
}

class DeinterlacerTest : public ::testing::Test {
protected:
    void add(FramePtr frame) {
        ASSERT_EQ(OK, mDeinterlacer.add(frame.get()));
        takeAll();
    }
    void finish() {
        ASSERT_EQ(OK, mDeinterlacer.finish());
        takeAll();
        EXPECT_FALSE(mDeinterlacer.hasFrames());
    }
    void takeAll() {
        for (auto output = mDeinterlacer.take(); output.frame; output = mDeinterlacer.take()) {
            mOutputs.push_back(std::move(output));
        }
    }
    void expectTimestamps(const std::vector<int>& numbers) const {
        ASSERT_EQ(numbers.size(), mOutputs.size());
        for (size_t i = 0; i < numbers.size(); ++i) {
            EXPECT_EQ(numbers[i] * 40000 + 7, mOutputs[i].frame->pts);
            EXPECT_EQ(40000 + numbers[i], mOutputs[i].frame->pkt_duration);
        }
    }

    Deinterlacer mDeinterlacer{2};
    std::vector<Deinterlacer::Output> mOutputs;
};

TEST_F(DeinterlacerTest, oneFrameOfEachTwoFieldsWithItsTimestamp) {
    EXPECT_GT(comb(*makeFrame(2, true)), 100) << "the test's own frames have no comb";
    for (int i = 0; i < 6; ++i) add(makeFrame(i, true));
    EXPECT_EQ(5U, mOutputs.size()) << "the delay is one frame";
    finish();
    expectTimestamps({0, 1, 2, 3, 4, 5});
    for (const auto& output : mOutputs) {
        EXPECT_TRUE(output.wasDeinterlaced);
        EXPECT_FALSE(isInterlaced(*output.frame));
        EXPECT_LT(comb(*output.frame), 40) << output.frame->pts;
    }
}

TEST_F(DeinterlacerTest, progressiveFramesBetweenThemAreNotChanged) {
    const FramePtr first = makeFrame(0, false);
    EXPECT_FALSE(mDeinterlacer.needs(*first)) << "nothing is loaded for progressive video";
    std::vector<const uint8_t*> data;
    for (int i = 0; i < 9; ++i) {
        FramePtr frame = makeFrame(i, i / 3 != 1);
        EXPECT_TRUE(mDeinterlacer.needs(*frame));
        data.push_back(frame->data[0]);
        add(std::move(frame));
    }
    finish();
    expectTimestamps({0, 1, 2, 3, 4, 5, 6, 7, 8});
    for (size_t i = 0; i < mOutputs.size(); ++i) {
        EXPECT_EQ(i / 3 != 1, mOutputs[i].wasDeinterlaced) << i;
        EXPECT_EQ(i / 3 == 1, mOutputs[i].frame->data[0] == data[i]) << i;
    }
}

TEST_F(DeinterlacerTest, pixelFormatsOfCamerasAndEditors) {
    for (const AVPixelFormat format :
         {AV_PIX_FMT_YUV411P, AV_PIX_FMT_YUVJ422P, AV_PIX_FMT_YUV420P10, AV_PIX_FMT_YUV422P10,
          AV_PIX_FMT_YUV444P12, AV_PIX_FMT_UYVY422, AV_PIX_FMT_NV12}) {
        mOutputs.clear();
        for (int i = 0; i < 3; ++i) add(makeFrame(i, true, format));
        finish();
        expectTimestamps({0, 1, 2});
        const AVPixFmtDescriptor& from = *av_pix_fmt_desc_get(format);
        for (const auto& output : mOutputs) {
            const AVPixFmtDescriptor& to =
                *av_pix_fmt_desc_get(static_cast<AVPixelFormat>(output.frame->format));
            EXPECT_EQ(from.log2_chroma_h, to.log2_chroma_h) << "mixes fields of chroma";
            EXPECT_EQ(from.comp[0].depth, to.comp[0].depth);
            EXPECT_LT(comb(*output.frame), 40) << from.name;
        }
    }
}

TEST_F(DeinterlacerTest, nothingIsLostWhereTheSizeChanges) {
    for (int i = 0; i < 2; ++i) add(makeFrame(i, true));
    for (int i = 2; i < 4; ++i) add(makeFrame(i, true, AV_PIX_FMT_YUV420P, 80));
    add(makeFrame(4, false));
    finish();
    expectTimestamps({0, 1, 2, 3, 4});
    EXPECT_EQ(kWidth, mOutputs[1].frame->width);
    EXPECT_EQ(80, mOutputs[2].frame->width);
    EXPECT_FALSE(mOutputs[4].wasDeinterlaced);
}

TEST_F(DeinterlacerTest, aSingleFrameComesOut) {
    add(makeFrame(0, true));
    finish();
    expectTimestamps({0});
}

TEST_F(DeinterlacerTest, nothingComesOutOfThePartBeforeASeek) {
    for (int i = 0; i < 3; ++i) add(makeFrame(i, true));
    mOutputs.clear();
    mDeinterlacer.restart();
    EXPECT_FALSE(mDeinterlacer.hasFrames());
    for (int i = 6; i < 8; ++i) add(makeFrame(i - 6, true));
    finish();
    expectTimestamps({0, 1});
}

TEST_F(DeinterlacerTest, framesTooSmallForFieldsStayAsTheyAre) {
    FramePtr frame = makeFrame(0, true, AV_PIX_FMT_YUV420P, 8);
    EXPECT_FALSE(mDeinterlacer.needs(*frame));
    EXPECT_FALSE(mDeinterlacer.failure());
}

}  // namespace
}  // namespace android::qmmediaeditor
