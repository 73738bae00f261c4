#include "host/extractor/TimestampRepair.h"

#include <stdlib.h>

#include <algorithm>
#include <iterator>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/mathematics.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

// Smaller steps back are errors of a multiplexer.
constexpr int64_t kMaxStepBackUs = 500000;
constexpr int64_t kMaxStepUs = 10000000;
// A recording that lacks one track for so long still has the other at 40 kbit/s.
constexpr int64_t kMinBytesPerSecond = 5000;
// Samples with the same timestamp are no further apart in a file.
constexpr int64_t kMaxInterleavingBytes = 8 << 20;
// More discontinuities than a recording has in as many bytes; bounds the search where every
// timestamp is one.
constexpr int kMaxNearbyDiscontinuities = 1000;

// An AVC frame counts as two fields.
constexpr int kAvcStep = 2;

constexpr int64_t kSecondUs = 1000000;
constexpr int kMaxRate = 240;
// For a variable rate: no camera, screen or editor makes frames less than a millisecond apart.
constexpr int kMaxVariableRate = 1000;
constexpr int kDefaultRate = 30;
constexpr int64_t kMaxDriftTicks = 3;
constexpr int64_t kMaxDriftStepUs = 15;

constexpr FrameRate kUsualRates[] = {
    {10, 1},  {12, 1},        {15000, 1001}, {15, 1},        {20, 1},  {24000, 1001}, {24, 1},
    {25, 1},  {30000, 1001},  {30, 1},       {48, 1},        {50, 1},  {60000, 1001}, {60, 1},
    {100, 1}, {120000, 1001}, {120, 1},      {240000, 1001}, {240, 1},
};

bool isUsable(const FrameRate& rate) {
    return rate.numerator > 0 && rate.denominator > 0 && rate.numerator <= INT32_MAX &&
           rate.denominator <= INT32_MAX && rate.numerator / rate.denominator <= kMaxRate;
}

// Intermediate values of long files at fine rates need more than 64 bits.
int64_t frameNumber(int64_t distanceUs, const FrameRate& rate) {
    return av_rescale(distanceUs, rate.numerator, kSecondUs * rate.denominator);
}

int64_t frameTimeUs(int64_t number, const FrameRate& rate) {
    return av_rescale(number, kSecondUs * rate.denominator, rate.numerator);
}

// True when every timestamp is within a tick of a different frame, and nearly all frames are
// present.
bool fits(const std::vector<int64_t>& timesUs, int64_t toleranceUs, const FrameRate& rate) {
    int64_t last = -1;
    size_t neighbours = 0;
    for (const int64_t timeUs : timesUs) {
        const int64_t distanceUs = timeUs - timesUs.front();
        const int64_t number = frameNumber(distanceUs, rate);
        const int64_t errorUs = distanceUs - frameTimeUs(number, rate);
        if (number <= last || std::abs(errorUs) > toleranceUs) return false;
        neighbours += number == last + 1 ? 1 : 0;
        last = number;
    }
    return neighbours * 5 >= timesUs.size() * 4;
}

// The smallest rate whose interval in whole microseconds does not exceed `distanceUs`.
int rateFor(int64_t distanceUs) {
    return static_cast<int>(
        std::clamp<int64_t>(kSecondUs / (distanceUs + 1) + 1, 1, kMaxVariableRate));
}

int rateFor(const FrameRate& rate) {
    return rateFor(kSecondUs * rate.denominator / rate.numerator);
}

std::vector<int64_t> sortedDistancesUs(const std::vector<int64_t>& timesUs) {
    std::vector<int64_t> distancesUs;
    for (size_t i = 1; i < timesUs.size(); ++i) {
        distancesUs.push_back(timesUs[i] - timesUs[i - 1]);
    }
    std::sort(distancesUs.begin(), distancesUs.end());
    return distancesUs;
}

int64_t medianOf(const std::vector<int64_t>& sorted) { return sorted[sorted.size() / 2]; }

// A rate that is too low would drop frames although nobody requested it.
int variableRate(int64_t shortestUs, int64_t tickUs, bool complete) {
    if (complete) return rateFor(shortestUs);
    return std::max(kMaxRate, rateFor(std::min(shortestUs, tickUs)));
}

}  // namespace

bool TimestampDiscontinuities::isDiscontinuity(int64_t stepUs, int64_t stepBytes) {
    if (stepUs < -kMaxStepBackUs) return true;
    return stepUs > kMaxStepUs && stepBytes < stepUs / 1000000 * kMinBytesPerSecond;
}

int64_t TimestampDiscontinuities::offsetUs(int stream, int64_t position, int64_t timeUs,
                                           int64_t expectedUs) {
    Offsets& own = mOffsets[stream];
    // Known when it is read again after a seek. Other discontinuities of the same stream are no
    // match, however near: with two within ten seconds, the samples between them would be dropped.
    if (const auto known = own.find(position); known != own.end()) return known->second;
    int64_t bestUs = expectedUs - timeUs;
    int64_t bestErrorUs = kMaxStepUs;
    for (const auto& [other, discontinuities] : mOffsets) {
        if (other == stream) continue;
        auto jump = discontinuities.lower_bound(position - kMaxInterleavingBytes + 1);
        for (int i = 0; i < kMaxNearbyDiscontinuities && jump != discontinuities.end();
             ++i, ++jump) {
            if (jump->first - position >= kMaxInterleavingBytes) break;
            const int64_t errorUs = std::llabs(timeUs + jump->second - expectedUs);
            if (errorUs >= bestErrorUs) continue;
            bestErrorUs = errorUs;
            bestUs = jump->second;
        }
    }
    if (bestErrorUs == kMaxStepUs) own[position] = bestUs;
    return bestUs;
}

int64_t TimestampDiscontinuities::offsetUsAt(int64_t position) const {
    int64_t latest = -1;
    int64_t offsetUs = 0;
    for (const auto& [stream, discontinuities] : mOffsets) {
        const auto next = discontinuities.upper_bound(position);
        if (next == discontinuities.begin()) continue;
        const auto& [jumpPosition, jumpUs] = *std::prev(next);
        if (jumpPosition <= latest) continue;
        latest = jumpPosition;
        offsetUs = jumpUs;
    }
    return offsetUs;
}

void PocTimestamps::ParserDeleter::operator()(AVCodecParserContext* parser) const {
    av_parser_close(parser);
}

PocTimestamps::PocTimestamps(const AVCodecParameters& parameters, int64_t frameTicks)
    : mMeasuresInterval(frameTicks == 0),
      mInterval(frameTicks),
      mLastDecodingTime(AV_NOPTS_VALUE),
      mSequenceStart(AV_NOPTS_VALUE) {
    const bool isAvc = parameters.codec_id == AV_CODEC_ID_H264;
    if (!isAvc && parameters.codec_id != AV_CODEC_ID_HEVC) return;
    mCodec.reset(avcodec_alloc_context3(nullptr));
    if (mCodec == nullptr || avcodec_parameters_to_context(mCodec.get(), &parameters) < 0) return;
    mParser.reset(av_parser_init(parameters.codec_id));
    if (mParser == nullptr) return;
    mParser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
    mStep = isAvc ? kAvcStep : 1;
}

PocTimestamps::~PocTimestamps() = default;

int64_t PocTimestamps::presentationTime(const AVPacket& packet) {
    if (mParser == nullptr || packet.dts == AV_NOPTS_VALUE) return AV_NOPTS_VALUE;
    const int64_t distance =
        mLastDecodingTime == AV_NOPTS_VALUE ? 0 : packet.dts - mLastDecodingTime;
    const bool isShorter = distance > 0 && (mInterval == 0 || distance < mInterval);
    if (mMeasuresInterval && isShorter) mInterval = distance;
    mLastDecodingTime = packet.dts;

    uint8_t* unit = nullptr;
    int unitBytes = 0;
    av_parser_parse2(mParser.get(), mCodec.get(), &unit, &unitBytes, packet.data, packet.size,
                     packet.pts, packet.dts, packet.pos);
    const int count = mParser->output_picture_number;
    // A closed GOP begins with the frame that is shown first.
    if (count == 0 && (packet.flags & AV_PKT_FLAG_KEY) != 0) mSequenceStart = packet.dts;
    if (mSequenceStart == AV_NOPTS_VALUE) return AV_NOPTS_VALUE;
    return mSequenceStart + count / mStep * mInterval;
}

bool PocTimestamps::isField() const {
    return mParser != nullptr && (mParser->picture_structure == AV_PICTURE_STRUCTURE_TOP_FIELD ||
                                  mParser->picture_structure == AV_PICTURE_STRUCTURE_BOTTOM_FIELD);
}

bool PocTimestamps::isAtSequenceStart(const AVPacket& packet) const {
    return packet.dts != AV_NOPTS_VALUE && packet.dts == mSequenceStart;
}

void PocTimestamps::restart() { mLastDecodingTime = mSequenceStart = AV_NOPTS_VALUE; }

ConstantFrameRate::ConstantFrameRate(FrameRate rate, int64_t tickUs, int64_t firstUs)
    : mRate(rate), mToleranceUs(tickUs + 1), mAnchorUs(firstUs) {}

int64_t ConstantFrameRate::snap(int64_t timeUs) {
    const int64_t number = frameNumber(timeUs - mAnchorUs, mRate);
    const int64_t errorUs = mAnchorUs + frameTimeUs(number, mRate) - timeUs;
    // Behind a seek, much drift may lie in between.
    const int64_t maxErrorUs = mHasFollowed ? kMaxDriftTicks * mToleranceUs : mToleranceUs;
    mHasFollowed = true;
    if (std::abs(errorUs) > maxErrorUs) {
        mAnchorUs = timeUs;
        return timeUs;
    }
    // Timestamps drift when the rate is slightly wrong. The anchor follows in steps too small to
    // move a frame too early.
    const int64_t excessUs = errorUs - std::clamp(errorUs, -mToleranceUs, mToleranceUs);
    const int64_t stepUs = std::clamp(excessUs, -kMaxDriftStepUs, kMaxDriftStepUs);
    mAnchorUs -= stepUs;
    return timeUs + errorUs - stepUs;
}

FrameRateEstimate estimateFrameRate(FrameTimestamps times, int64_t tickUs,
                                    const std::vector<FrameRate>& likely) {
    std::vector<int64_t>& timesUs = times.timesUs;
    // The rate that a container states is often an average; so it is tried after the common rates.
    std::vector<FrameRate> rates(std::begin(kUsualRates), std::end(kUsualRates));
    std::copy_if(likely.begin(), likely.end(), std::back_inserter(rates), isUsable);
    std::sort(timesUs.begin(), timesUs.end());
    timesUs.erase(std::unique(timesUs.begin(), timesUs.end()), timesUs.end());

    FrameRateEstimate timing;
    if (timesUs.size() < 2) {
        const auto first = std::find_if(likely.begin(), likely.end(), isUsable);
        timing.rate = first == likely.end() ? kDefaultRate : rateFor(*first);
        return timing;
    }
    const std::vector<int64_t> distancesUs = sortedDistancesUs(timesUs);
    // Exact timestamps are tried first. A tick as long as a frame, as in AVI, adds no information.
    const bool tickIsFine = tickUs < medianOf(distancesUs) / 3;
    for (const int64_t toleranceUs : {INT64_C(1), tickIsFine ? tickUs + 1 : INT64_C(1)}) {
        for (const FrameRate& rate : rates) {
            if (!fits(timesUs, toleranceUs, rate)) continue;
            timing.rate = rateFor(rate);
            timing.constantRate = ConstantFrameRate(rate, toleranceUs, timesUs.front());
            return timing;
        }
    }
    timing.rate = variableRate(distancesUs.front(), tickUs, times.complete);
    return timing;
}

}  // namespace qmmediaeditor
}  // namespace android
