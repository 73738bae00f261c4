#include "host/convert/FFmpegPointers.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libswresample/swresample.h>
}

namespace android {
namespace qmmediaeditor {

void FFmpegDeleter::operator()(AVAudioFifo* fifo) const { av_audio_fifo_free(fifo); }

void FFmpegDeleter::operator()(AVBSFContext* filter) const { av_bsf_free(&filter); }

void FFmpegDeleter::operator()(AVBufferRef* buffer) const { av_buffer_unref(&buffer); }

void FFmpegDeleter::operator()(AVCodecContext* context) const { avcodec_free_context(&context); }

void FFmpegDeleter::operator()(AVCodecParameters* parameters) const {
    avcodec_parameters_free(&parameters);
}

void FFmpegDeleter::operator()(AVFrame* frame) const { av_frame_free(&frame); }

void FFmpegDeleter::operator()(AVPacket* packet) const { av_packet_free(&packet); }

void FFmpegDeleter::operator()(SwrContext* context) const { swr_free(&context); }

void InputFormatDeleter::operator()(AVFormatContext* context) const {
    avformat_close_input(&context);
}

void OutputFormatDeleter::operator()(AVFormatContext* context) const {
    avformat_free_context(context);
}

void IoContextDeleter::operator()(AVIOContext* context) const {
    // libavformat may have replaced the buffer since.
    av_freep(&context->buffer);
    avio_context_free(&context);
}

}  // namespace qmmediaeditor
}  // namespace android
