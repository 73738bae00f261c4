// Shared by the tests of codecs, their backends and threads.
#pragma once

#include <gtest/gtest.h>
#include <host/Host.h>
#include <media/stagefright/foundation/ALooper.h>
#include <sched.h>
#include <unistd.h>

#include <fstream>
#include <future>
#include <string>
#include <utility>

#include "host/codec/HostMediaCodec.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace android::qmmediaeditor {

inline HostOptions fastOptions() {
    HostOptions options;
    options.avcPreset = "ultrafast";
    options.threads = 1;
    return options;
}

typedef CodecBackend::Step Step;

// A bound that only a failure reaches.
constexpr int64_t kBoundUs = 20000000;

inline CodecParametersPtr makeParameters(AVMediaType type = AVMEDIA_TYPE_UNKNOWN,
                                         AVCodecID codec = AV_CODEC_ID_NONE) {
    CodecParametersPtr parameters(avcodec_parameters_alloc());
    parameters->codec_type = type;
    parameters->codec_id = codec;
    return parameters;
}

inline sp<AMessage> formatOf(const sp<TrackSource>& track, const char* mime = "") {
    const sp<AMessage> format = new AMessage;
    format->setString("mime", mime);
    format->setObject(TrackSource::kKey, track);
    return format;
}

inline sp<AMessage> encoderFormat(const char* mime, int width, int height) {
    const sp<AMessage> format = new AMessage;
    format->setString("mime", mime);
    format->setInt32("width", width);
    format->setInt32("height", height);
    format->setInt32("frame-rate", 30);
    return format;
}

// A packet's content for a decoder. The backend has to copy it before it returns.
template <typename Value>
CodecInput inputOf(const std::vector<Value>& values, int64_t timeUs, const InputSegment& segment) {
    CodecInput input;
    input.data = reinterpret_cast<const uint8_t*>(values.data());
    input.size = values.size() * sizeof(Value);
    input.timeUs = timeUs;
    input.info.segment = segment;
    input.info.properties.reset(av_packet_alloc());
    input.info.properties->pts = timeUs;
    return input;
}

// Hands every output that is ready to `take`. Returns the step that ends them.
template <typename Take>
Step drain(CodecBackend* backend, const Take& take) {
    for (;;) {
        CodecOutput output;
        const Step step = backend->produce(&output);
        if (step == Step::kOutput) {
            take(output);
        } else if (step != Step::kFormat) {
            return step;
        }
    }
}

// The result of a call that must not block any longer. A thread that is blocked for good could not
// be joined: the process ends, and with it this one test.
template <typename Result>
Result resultOf(std::future<Result>* call) {
    const bool ends = call->wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    if (!ends) GTEST_LOG_(FATAL) << "the call is blocked";
    return call->get();
}

// Runs a call on a thread of its own, and waits until it sleeps: for tests of what wakes it.
template <typename Result>
class WaitingThread {
public:
    // Returns when the thread sleeps in `call`, which has to block.
    template <typename Call>
    explicit WaitingThread(Call call) {
        std::promise<pid_t> started;
        std::future<pid_t> id = started.get_future();
        mResult = std::async(std::launch::async, [call, &started] {
            started.set_value(gettid());
            return call();
        });
        const std::string path = "/proc/self/task/" + std::to_string(id.get()) + "/stat";
        // The state follows the name in brackets. A lock may make it sleep for a moment, too.
        for (int sleeping = 0; sleeping < 20; sched_yield()) {
            std::string line;
            std::getline(std::ifstream(path), line);
            if (line.empty()) break;  // it has ended without blocking
            sleeping = line.find(") S") != std::string::npos ? sleeping + 1 : 0;
        }
        EXPECT_NE(std::future_status::ready, mResult.wait_for(std::chrono::seconds(0)))
            << "the call does not block";
    }

    // The call's result, once something else has woken it.
    Result get() { return resultOf(&mResult); }

private:
    std::future<Result> mResult;
};

// A codec and its client.
class CodecTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(OK, mLooper->start()); }
    void TearDown() override {
        mCodec->release();
        mLooper->stop();
    }

    void start(const sp<AMessage>& format = new AMessage) {
        ASSERT_EQ(OK, mCodec->configure(format, nullptr, nullptr, 0));
        ASSERT_EQ(OK, mCodec->start());
    }
    status_t takeInput(int64_t timeoutUs = kBoundUs) {
        return mCodec->dequeueInputBuffer(&mInput, timeoutUs);
    }
    status_t queue(int64_t timeUs, uint32_t flags = 0, size_t size = 1) {
        const status_t status = takeInput();
        return status != OK ? status
                            : mCodec->queueInputBuffer(mInput, 0, size, timeUs, flags, nullptr);
    }
    // The members below are those of the output.
    status_t dequeue(int64_t timeoutUs = kBoundUs) {
        size_t offset = 0;
        return mCodec->dequeueOutputBuffer(&mIndex, &offset, &mSize, &mTimeUs, &mFlags, timeoutUs);
    }
    bool atEnd() const { return (mFlags & MediaCodec::BUFFER_FLAG_EOS) != 0; }

    const sp<ALooper> mLooper = new ALooper;
    sp<MediaCodec> mCodec;
    size_t mInput = 0;
    size_t mIndex = 0;
    size_t mSize = 0;
    int64_t mTimeUs = 0;
    uint32_t mFlags = 0;
};

}  // namespace android::qmmediaeditor
