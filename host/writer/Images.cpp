#include "host/writer/Images.h"

#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "host/convert/FFmpegPointers.h"
#include "host/convert/ZimgGraph.h"
#include "host/extractor/Demuxer.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr uint8_t kBlack[] = {0, 128, 128};

FrameSize planeSize(const FrameSize& size, int plane) {
    return plane == 0 ? size : FrameSize{size.width / 2, size.height / 2};
}

FramePlanes planesOf(Image* image) {
    FramePlanes planes;
    for (int i = 0; i < 3; ++i) {
        planes.plane[i] = {image->planes[static_cast<size_t>(i)].data(),
                           planeSize(image->size, i).width};
    }
    return planes;
}

zimg_image_format formatOf(const FrameSize& size) {
    zimg_image_format format;
    zimg_image_format_default(&format, ZIMG_API_VERSION);
    format.width = static_cast<unsigned>(size.width);
    format.height = static_cast<unsigned>(size.height);
    format.pixel_type = ZIMG_PIXEL_BYTE;
    format.subsample_w = 1;
    format.subsample_h = 1;
    format.color_family = ZIMG_COLOR_YUV;
    return format;
}

zimg_image_format sourceFormat(const AVFrame& frame) {
    // Odd rows and columns at the end are left out, because JFIF's planes have even sizes here.
    zimg_image_format format = formatOf({frame.width & ~1, frame.height & ~1});
    const bool isBt601 =
        frame.colorspace == AVCOL_SPC_SMPTE170M || frame.colorspace == AVCOL_SPC_BT470BG;
    format.matrix_coefficients = isBt601 ? ZIMG_MATRIX_ST170_M : ZIMG_MATRIX_BT709;
    format.pixel_range =
        frame.color_range == AVCOL_RANGE_JPEG ? ZIMG_RANGE_FULL : ZIMG_RANGE_LIMITED;
    format.chroma_location = ZIMG_CHROMA_LEFT;
    return format;
}

zimg_image_format imageFormat(const FrameSize& size) {
    zimg_image_format format = formatOf(size);
    format.matrix_coefficients = ZIMG_MATRIX_ST170_M;
    format.pixel_range = ZIMG_RANGE_FULL;
    format.chroma_location = ZIMG_CHROMA_CENTER;
    return format;
}

FrameSize fitted(const FrameSize& frame, const FrameSize& box) {
    const double scale = std::min({1.0, static_cast<double>(box.width) / frame.width,
                                   static_cast<double>(box.height) / frame.height});
    const auto even = [scale](int side) {
        return std::max(static_cast<int>(side * scale) & ~1, 2);
    };
    return {even(frame.width), even(frame.height)};
}

Image turned(const Image& image, int rotation) {
    const bool isSideways = rotation % 180 != 0;
    Image result(isSideways ? FrameSize{image.size.height, image.size.width} : image.size);
    for (int i = 0; i < 3; ++i) {
        const FrameSize from = planeSize(image.size, i);
        const FrameSize to = planeSize(result.size, i);
        for (int y = 0; y < from.height; ++y) {
            for (int x = 0; x < from.width; ++x) {
                int column = x;
                int row = y;
                if (rotation == 90) {
                    column = from.height - 1 - y;
                    row = x;
                } else if (rotation == 180) {
                    column = from.width - 1 - x;
                    row = from.height - 1 - y;
                } else if (rotation == 270) {
                    column = y;
                    row = from.width - 1 - x;
                }
                result.planes[static_cast<size_t>(i)]
                             [static_cast<size_t>(row) * static_cast<size_t>(to.width) +
                              static_cast<size_t>(column)] =
                    image.planes[static_cast<size_t>(i)]
                                [static_cast<size_t>(y) * static_cast<size_t>(from.width) +
                                 static_cast<size_t>(x)];
            }
        }
    }
    return result;
}

class Reader final : public ImageReader {
public:
    explicit Reader(int rotation) : mRotation(rotation) {}
    bool open(int fd);
    std::optional<Image> read(size_t frame, FrameSize box) override;

private:
    struct Entry {
        int64_t pts;
        bool isKey;
    };

    bool seek(size_t frame);
    // Decodes up to the frame with this timestamp, or a later one.
    bool decodeUpTo(int64_t pts);
    std::optional<Image> convert(FrameSize box) const;

    const int mRotation;
    std::unique_ptr<Demuxer> mDemuxer;
    CodecContextPtr mDecoder;
    PacketPtr mPacket;
    FramePtr mFrame;
    int mStream = -1;
    std::vector<Entry> mEntries;  // in the order of presentation
    std::optional<size_t> mCurrent;
};

bool Reader::open(int fd) {
    struct stat status {};
    if (fstat(fd, &status) != 0) return false;
    const DescriptorFile::Opened file = DescriptorFile::openForReading(fd, 0, status.st_size);
    if (file.file == nullptr) return false;
    mDemuxer = Demuxer::open(file.file, Demuxer::ProbeDepth::kHeader).demuxer;
    mPacket.reset(av_packet_alloc());
    mFrame.reset(av_frame_alloc());
    if (mDemuxer == nullptr || mPacket == nullptr || mFrame == nullptr) return false;
    AVFormatContext& context = mDemuxer->context();
    mStream = av_find_best_stream(&context, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (mStream < 0) return false;
    mDemuxer->keepOnly(mStream);
    const AVCodecParameters& parameters = *context.streams[mStream]->codecpar;
    const AVCodec* const codec = avcodec_find_decoder(parameters.codec_id);
    mDecoder.reset(codec == nullptr ? nullptr : avcodec_alloc_context3(codec));
    if (mDecoder == nullptr || avcodec_parameters_to_context(mDecoder.get(), &parameters) < 0 ||
        avcodec_open2(mDecoder.get(), codec, nullptr) < 0) {
        return false;
    }
    while (mDemuxer->readPacket(mStream, mPacket.get()) == OK) {
        mEntries.push_back({mPacket->pts, (mPacket->flags & AV_PKT_FLAG_KEY) != 0});
    }
    std::sort(mEntries.begin(), mEntries.end(),
              [](const Entry& a, const Entry& b) { return a.pts < b.pts; });
    return !mEntries.empty();
}

bool Reader::seek(size_t frame) {
    size_t key = frame;
    while (key > 0 && !mEntries[key].isKey) --key;
    // Decoding on is as fast when the key frame is already behind.
    if (mCurrent && *mCurrent < frame && key <= *mCurrent) return true;
    avcodec_flush_buffers(mDecoder.get());
    return av_seek_frame(&mDemuxer->context(), mStream, mEntries[key].pts, AVSEEK_FLAG_BACKWARD) >=
           0;
}

bool Reader::decodeUpTo(int64_t pts) {
    bool hasEnded = false;
    while (true) {
        const int result = avcodec_receive_frame(mDecoder.get(), mFrame.get());
        if (result == 0) {
            if (mFrame->pts >= pts) return true;
            continue;
        }
        if (result != AVERROR(EAGAIN) || hasEnded) return false;
        hasEnded = mDemuxer->readPacket(mStream, mPacket.get()) != OK;
        if (avcodec_send_packet(mDecoder.get(), hasEnded ? nullptr : mPacket.get()) < 0)
            return false;
    }
}

std::optional<Image> Reader::read(size_t frame, FrameSize box) {
    if (frame >= mEntries.size()) return std::nullopt;
    if (mCurrent != frame) {
        if (!seek(frame) || !decodeUpTo(mEntries[frame].pts)) {
            mCurrent.reset();
            return std::nullopt;
        }
        mCurrent = frame;
    }
    return convert(box);
}

std::optional<Image> Reader::convert(FrameSize box) const {
    if (mFrame->format != AV_PIX_FMT_YUV420P) return std::nullopt;
    if (mRotation % 180 != 0) std::swap(box.width, box.height);
    Image image(fitted({mFrame->width & ~1, mFrame->height & ~1}, box));
    const auto graph = ZimgGraph::build(sourceFormat(*mFrame), imageFormat(image.size), {});
    FramePlanes source;
    for (int i = 0; i < 3; ++i) source.plane[i] = {mFrame->data[i], mFrame->linesize[i]};
    if (graph == nullptr || !graph->process(source, planesOf(&image))) return std::nullopt;
    return mRotation == 0 ? image : turned(image, mRotation);
}

}  // namespace

Image::Image(FrameSize area) : size(area) {
    for (int i = 0; i < 3; ++i) {
        const FrameSize plane = planeSize(size, i);
        planes[static_cast<size_t>(i)].assign(
            static_cast<size_t>(plane.width) * static_cast<size_t>(plane.height), kBlack[i]);
    }
}

void Image::paste(const Image& other, int left, int top) {
    for (int i = 0; i < 3; ++i) {
        const FrameSize from = planeSize(other.size, i);
        const FrameSize position = planeSize({left, top}, i);
        const auto width = static_cast<size_t>(planeSize(size, i).width);
        for (int y = 0; y < from.height; ++y) {
            const auto line = other.planes[static_cast<size_t>(i)].begin() +
                              static_cast<ptrdiff_t>(y) * static_cast<ptrdiff_t>(from.width);
            std::copy(line, line + from.width,
                      planes[static_cast<size_t>(i)].begin() +
                          static_cast<ptrdiff_t>(static_cast<size_t>(position.height + y) * width +
                                                 static_cast<size_t>(position.width)));
        }
    }
}

std::unique_ptr<ImageReader> ImageReader::open(int fd, int rotation) {
    auto reader = std::make_unique<Reader>(rotation);
    if (!reader->open(fd)) return nullptr;
    return reader;
}

std::vector<uint8_t> encodeJpeg(const Image& image) {
    const AVCodec* const codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    const CodecContextPtr encoder(codec == nullptr ? nullptr : avcodec_alloc_context3(codec));
    const FramePtr frame(av_frame_alloc());
    const PacketPtr packet(av_packet_alloc());
    if (encoder == nullptr || frame == nullptr || packet == nullptr) return {};
    constexpr int kQuality = 3 * FF_QP2LAMBDA;
    encoder->width = frame->width = image.size.width;
    encoder->height = frame->height = image.size.height;
    encoder->pix_fmt = AV_PIX_FMT_YUVJ420P;
    encoder->color_range = AVCOL_RANGE_JPEG;
    encoder->time_base = {1, 1};
    encoder->thread_count = 1;
    encoder->flags |= AV_CODEC_FLAG_QSCALE | AV_CODEC_FLAG_BITEXACT;
    encoder->global_quality = kQuality;
    if (avcodec_open2(encoder.get(), codec, nullptr) < 0) return {};
    frame->format = AV_PIX_FMT_YUVJ420P;
    frame->quality = kQuality;
    if (av_frame_get_buffer(frame.get(), 0) < 0) return {};
    for (int i = 0; i < 3; ++i) {
        const FrameSize plane = planeSize(image.size, i);
        for (int y = 0; y < plane.height; ++y) {
            const auto line = image.planes[static_cast<size_t>(i)].begin() +
                              static_cast<ptrdiff_t>(y) * static_cast<ptrdiff_t>(plane.width);
            std::copy(line, line + plane.width,
                      frame->data[i] + static_cast<ptrdiff_t>(y) * frame->linesize[i]);
        }
    }
    if (avcodec_send_frame(encoder.get(), frame.get()) < 0 ||
        avcodec_receive_packet(encoder.get(), packet.get()) < 0) {
        return {};
    }
    return std::vector<uint8_t>(packet->data, packet->data + packet->size);
}

}  // namespace qmmediaeditor
}  // namespace android
