// A session on the scripted platform, driven by a test on its own thread.
#pragma once

#include <Transcode.h>
#include <fakes/FatalCheckTrap.h>
#include <fakes/LogCapture.h>
#include <fakes/ScriptedPlatform.h>
#include <gtest/gtest.h>
#include <media/stagefright/foundation/MediaDefs.h>

#include <memory>
#include <string>
#include <vector>

#include "SystemCalls.h"

namespace android::qmmediaeditor {

constexpr const char* kAac = "audio/mp4a-latm";
constexpr const char* kAvc = "video/avc";

constexpr size_t kPcmBytes = 192;    // a millisecond at 48000 Hz, two channels, 16 bits
constexpr size_t kFrameBytes = 384;  // 16x16 pixels, 4:2:0
constexpr int64_t kAudioStepUs = 1000;
constexpr int64_t kVideoStepUs = 40000;  // above the 33333 of 30 frames per second

class SessionTest : public ::testing::Test {
protected:
    typedef std::vector<int64_t> Times;
    typedef std::vector<std::string> Lines;
    typedef std::vector<std::pair<const char*, int32_t>> Keys;

    static constexpr int64_t kInputBytes = 4000000;

    SessionTest();
    ~SessionTest() override;

    static sp<AMessage> withKeys(const sp<AMessage>& message, const Keys& keys);
    static sp<AMessage> audioFormat(const Keys& keys = {}, int64_t durationUs = 10000000);
    static sp<AMessage> videoFormat(const Keys& keys = {}, int64_t durationUs = 10000000);
    static sp<ABuffer> bufferOf(const std::vector<uint8_t>& bytes);

    // Adds both tracks (audio is track 0) with decoders and encoders that pass everything through.
    void prepareEchoes();
    // Samples of both tracks, video in steps of kVideoStepUs and audio of kAudioStepUs.
    void addSamples(size_t audioCount, size_t videoCount);
    void setPeriods(const std::vector<TrimPeriod>& periods);

    // Created with the request as it stands at the first call.
    Transcode& session();
    // A new one, with an output of its own.
    Transcode& renewSession();
    // Up to where the main loop begins, with sources that are started and encoders that take
    // nothing.
    void prepareLoop();
    int32_t run();
    // An output file for the next session.
    void renewOutput();
    // The encoders' threads may outlive a run by a moment.
    void awaitEncoders() { awaitEncodersOf(session()); }
    static void awaitEncodersOf(Transcode& session);

    bool logged(int priority, const std::string& text) const {
        return mLog.contains(priority, "Transcode", text);
    }
    void expectOrder(const Lines& order) { EXPECT_EQ(order, mJournal.orderOf(order)); }

    SystemCalls mCalls;
    ScriptedPlatform mPlatform;
    Journal& mJournal = mPlatform.journal();
    LogCapture mLog{&mJournal};
    FatalCheckTrap mTrap;
    std::vector<TrimPeriod> mPeriods;
    std::vector<int32_t> mProgress;
    TranscodeProperty mRequest;
    sp<ScriptedCodec> mAudioDecoder;
    sp<ScriptedCodec> mVideoDecoder;
    sp<ScriptedCodec> mAudioEncoder;
    sp<ScriptedCodec> mVideoEncoder;
    std::unique_ptr<Transcode> mSession;
};

}  // namespace android::qmmediaeditor
