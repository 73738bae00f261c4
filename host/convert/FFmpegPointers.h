// Owning pointers to FFmpeg's objects. The types stay incomplete here, so that a header may hold
// one without FFmpeg's headers.
#pragma once

#include <memory>

struct AVAudioFifo;
struct AVBSFContext;
struct AVBufferRef;
struct AVCodecContext;
struct AVCodecParameters;
struct AVFormatContext;
struct AVFrame;
struct AVIOContext;
struct AVPacket;
struct SwrContext;

namespace android {
namespace qmmediaeditor {

struct FFmpegDeleter {
    void operator()(AVAudioFifo* fifo) const;
    void operator()(AVBSFContext* filter) const;
    void operator()(AVBufferRef* buffer) const;
    void operator()(AVCodecContext* context) const;
    void operator()(AVCodecParameters* parameters) const;
    void operator()(AVFrame* frame) const;
    void operator()(AVPacket* packet) const;
    void operator()(SwrContext* context) const;
};

// One that was opened for reading.
struct InputFormatDeleter {
    void operator()(AVFormatContext* context) const;
};

// One for writing; its AVIOContext is owned apart.
struct OutputFormatDeleter {
    void operator()(AVFormatContext* context) const;
};

// One that avio_alloc_context made, with its buffer.
struct IoContextDeleter {
    void operator()(AVIOContext* context) const;
};

using AudioFifoPtr = std::unique_ptr<AVAudioFifo, FFmpegDeleter>;
using BitstreamFilterPtr = std::unique_ptr<AVBSFContext, FFmpegDeleter>;
using BufferRefPtr = std::unique_ptr<AVBufferRef, FFmpegDeleter>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, FFmpegDeleter>;
using CodecParametersPtr = std::unique_ptr<AVCodecParameters, FFmpegDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FFmpegDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, FFmpegDeleter>;
using ResamplerPtr = std::unique_ptr<SwrContext, FFmpegDeleter>;
using InputFormatPtr = std::unique_ptr<AVFormatContext, InputFormatDeleter>;
using OutputFormatPtr = std::unique_ptr<AVFormatContext, OutputFormatDeleter>;
using IoContextPtr = std::unique_ptr<AVIOContext, IoContextDeleter>;

}  // namespace qmmediaeditor
}  // namespace android
