// To be preloaded: changes what an encoder gets or makes, or what is written.
//
// QM_PLANT names the fault; N counts from 0:
//   green:N    the N-th video frame that is encoded is green
//   before:N   the N-th video frame that is encoded is the one before it
//   bit:N      a bit of the N-th video packet is wrong when the encoder delivers it
//   file-bit:N the same when the packet is written
//   late       the audio that is encoded is 40 ms late
//   file-late  the audio packets are written 40 ms late
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <deque>
#include <memory>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace {

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

bool isPlanted(const char* name) {
    const char* const plant = getenv("QM_PLANT");
    return plant != nullptr && std::string(plant).substr(0, std::string(plant).find(':')) == name;
}

int plantedNumber() { return atoi(strrchr(getenv("QM_PLANT"), ':') + 1); }

AVFrame* writableCopy(const AVFrame* frame) {
    AVFrame* const copy = av_frame_clone(frame);
    if (copy == nullptr || av_frame_make_writable(copy) < 0) abort();
    return copy;
}

AVFrame* greenFrame(const AVFrame* frame) {
    AVFrame* const green = writableCopy(frame);
    const int values[] = {145, 54, 34};
    for (int i = 0; i < 3; ++i) {
        const int rows = i == 0 ? frame->height : frame->height / 2;
        for (int y = 0; y < rows; ++y) {
            memset(green->data[i] + y * green->linesize[i], values[i],
                   static_cast<size_t>(i == 0 ? frame->width : frame->width / 2));
        }
    }
    return green;
}

// Planar floats, as the AAC encoder takes them.
AVFrame* lateAudio(const AVFrame* frame) {
    static std::deque<float> waiting[8];
    AVFrame* const late = writableCopy(frame);
    for (int channel = 0; channel < frame->ch_layout.nb_channels; ++channel) {
        std::deque<float>& samples = waiting[channel];
        if (samples.empty()) samples.resize(static_cast<size_t>(frame->sample_rate) / 25);
        auto* const data = reinterpret_cast<float*>(late->extended_data[channel]);
        for (int i = 0; i < frame->nb_samples; ++i) {
            samples.push_back(data[i]);
            data[i] = samples.front();
            samples.pop_front();
        }
    }
    return late;
}

void flipBit(AVPacket* packet) {
    if (av_packet_make_writable(packet) < 0) abort();
    packet->data[packet->size * 3 / 4] ^= 0x10;
}

}  // namespace

extern "C" int avcodec_send_frame(AVCodecContext* context, const AVFrame* frame) {
    static int count = 0;
    static AVFrame* before = nullptr;
    static const auto send = next<decltype(avcodec_send_frame)>("avcodec_send_frame");
    AVFrame* changed = nullptr;
    if (frame != nullptr && context->codec_type == AVMEDIA_TYPE_VIDEO) {
        if (isPlanted("green") && count == plantedNumber()) changed = greenFrame(frame);
        if (isPlanted("before")) {
            if (count == plantedNumber()) {
                changed = before;
                changed->pts = frame->pts;
                changed->pict_type = frame->pict_type;
            } else if (count + 1 == plantedNumber()) {
                before = writableCopy(frame);
            }
        }
        ++count;
    } else if (frame != nullptr && isPlanted("late")) {
        changed = lateAudio(frame);
    }
    const int result = send(context, changed != nullptr ? changed : frame);
    av_frame_free(&changed);
    return result;
}

extern "C" int avcodec_receive_packet(AVCodecContext* context, AVPacket* packet) {
    static int count = 0;
    static const auto receive = next<decltype(avcodec_receive_packet)>("avcodec_receive_packet");
    const int result = receive(context, packet);
    if (result != 0 || context->codec_type != AVMEDIA_TYPE_VIDEO) return result;
    if (isPlanted("bit") && count == plantedNumber()) flipBit(packet);
    ++count;
    return result;
}

extern "C" int av_write_frame(AVFormatContext* context, AVPacket* packet) {
    static int count = 0;
    static const auto write = next<decltype(av_write_frame)>("av_write_frame");
    if (packet == nullptr) return write(context, packet);
    const AVStream& stream = *context->streams[packet->stream_index];
    if (stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
        if (isPlanted("file-bit") && count++ == plantedNumber()) flipBit(packet);
    } else if (isPlanted("file-late")) {
        packet->pts += av_rescale_q(40, {1, 1000}, stream.time_base);
        packet->dts = packet->pts;
    }
    return write(context, packet);
}
