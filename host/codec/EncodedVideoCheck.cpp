#include "host/codec/EncodedVideoCheck.h"

#include <algorithm>
#include <cmath>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/intreadwrite.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

// The distance of the quantizer's steps, in sample values. libavcodec reports H.264's QP, or the
// scale of the MPEG codecs, each times FF_QP2LAMBDA.
double quantizerStep(const AVPacket& packet, AVCodecID codec) {
    size_t size = 0;
    const uint8_t* const data = av_packet_get_side_data(&packet, AV_PKT_DATA_QUALITY_STATS, &size);
    if (data == nullptr || size < 4) return 0;
    const double quality = AV_RL32(data) / double{FF_QP2LAMBDA};
    return codec == AV_CODEC_ID_H264 ? 0.625 * std::exp2(quality / 6) : 2 * quality;
}

// Encoders leave coefficients out that are smaller than a step, so that the mean of an area changes
// by a fraction of a step. Differences up to a quarter of a step have been seen; H.263 limits large
// coefficients, which adds up to three sample values.
constexpr double kMaxSteps = 0.6;
constexpr double kMaxRounding = 3;
// A difference that vanishes when the frame is compared with another input needs less.
constexpr double kMaxStepsOfMotion = 0.2;
constexpr double kMaxRoundingOfMotion = 1.5;
constexpr double kCloser = 0.5;

bool isFar(const std::vector<double>& differences, double step) {
    return step > 0 && std::any_of(differences.begin(), differences.end(), [step](double each) {
               return each > kMaxSteps * step + kMaxRounding;
           });
}

// Whether an area of the frame is closer to another input than to its own one. `others` and `own`
// are the differences of the areas from these two.
bool isCloser(const std::vector<double>& others, const std::vector<double>& own, double step) {
    for (size_t i = 0; step > 0 && i < own.size(); ++i) {
        const bool isFarFromOwn = own[i] > kMaxStepsOfMotion * step + kMaxRoundingOfMotion;
        if (isFarFromOwn && others[i] < kCloser * own[i]) return true;
    }
    return false;
}

}  // namespace

EncodedVideoCheck::EncodedVideoCheck(const sp<AMessage>& format, int threads,
                                     HostObserver* observer)
    : mObserver(observer), mDecoder(nullptr), mDecoded(av_frame_alloc()) {
    if (mDecoded == nullptr || mDecoder.prepare(format) != OK) {
        fail("there is no decoder for the video");
        return;
    }
    mDecoder.context()->thread_count = threads;
    mDecoder.context()->err_recognition = AV_EF_EXPLODE;
    if (mDecoder.open() != OK) fail("the decoder for the video cannot be opened");
}

void EncodedVideoCheck::fail(const std::string& reason) {
    if (mHasFailed) return;
    mHasFailed = true;
    mInputs.clear();
    mLast.reset();
    mObserver->onCheckFailed(reason);
}

void EncodedVideoCheck::addInput(FramePtr frame, int64_t timeUs) {
    if (mHasFailed) return;
    const ReducedFrame reduced(*frame);
    mInputs.push_back({std::move(frame), timeUs, reduced});
}

void EncodedVideoCheck::addPacket(const AVPacket& packet, int64_t timeUs) {
    if (mHasFailed) return;
    const auto input = std::find_if(mInputs.begin(), mInputs.end(),
                                    [timeUs](const Input& each) { return each.timeUs == timeUs; });
    if (input != mInputs.end()) {
        input->step = quantizerStep(packet, mDecoder.context()->codec_id);
    }
    CodecInput sample;
    sample.data = packet.data;
    sample.size = static_cast<size_t>(packet.size);
    sample.timeUs = timeUs;
    if (mDecoder.send(sample) != OK) return fail("not enough memory");
    receive();
}

void EncodedVideoCheck::finish() {
    if (mHasFailed) return;
    if (mDecoder.sendEnd() != OK) return fail("not enough memory");
    receive();
    // The decoder has not output these.
    for (const Input& input : mInputs) {
        report();
        mObserver->onFrameChecked({input.timeUs, std::nullopt, true});
    }
    report();
}

void EncodedVideoCheck::receive() {
    while (mDecoder.receive(mDecoded.get()) == PacketDecoder::Received::kFrame) {
        compare(*mDecoded);
        av_frame_unref(mDecoded.get());
    }
}

void EncodedVideoCheck::compare(const AVFrame& output) {
    while (!mInputs.empty() && mInputs.front().timeUs < output.pts) {
        report();
        mObserver->onFrameChecked({mInputs.front().timeUs, std::nullopt, true});
        mInputs.pop_front();
    }
    if (mInputs.empty() || mInputs.front().timeUs != output.pts) return;
    Input input = std::move(mInputs.front());
    mInputs.pop_front();
    const AVFrame& frame = *input.frame;
    if (output.width != frame.width || output.height != frame.height ||
        output.format != frame.format) {
        report();
        mObserver->onFrameChecked({input.timeUs, std::nullopt, true});
        return;
    }
    if (mComparison == nullptr) {
        mComparison = std::make_unique<FrameComparison>(frame.width, frame.height);
        if (mComparison->failure()) return fail(*mComparison->failure());
    }
    const std::optional<double> ssim = mComparison->ssim(std::move(input.frame), output);
    if (!ssim) return fail("not enough memory");
    const ReducedFrame reduced(output);
    Compared compared{{input.timeUs, *ssim, false}, input.reduced, reduced, {}, input.step};
    compared.differences = reduced.differencesFrom(input.reduced);
    compared.result.isWrong = isFar(compared.differences, compared.step);
    if (mLast) {
        const std::vector<double> fromBefore = reduced.differencesFrom(mLast->input);
        const std::vector<double> fromNext = mLast->output.differencesFrom(input.reduced);
        if (isCloser(fromBefore, compared.differences, compared.step)) {
            compared.result.isWrong = true;
        }
        if (isCloser(fromNext, mLast->differences, mLast->step)) mLast->result.isWrong = true;
    }
    report();
    mLast = std::move(compared);
}

void EncodedVideoCheck::report() {
    if (!mLast) return;
    mObserver->onFrameChecked(mLast->result);
    mLast.reset();
}

}  // namespace qmmediaeditor
}  // namespace android
