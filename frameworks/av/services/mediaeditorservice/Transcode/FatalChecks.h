// Invariants of the platform and rules for the host whose violation ends the process.
//
// The text of a failed check is part of the log's vocabulary, line number included. Lines and texts
// are therefore a table and do not follow the code around.
#pragma once

#include <android/log.h>
#include <media/MediaCodecBuffer.h>
#include <stddef.h>
#include <utils/Errors.h>
#include <utils/Vector.h>

namespace android {
namespace qmmediaeditor {

struct FatalCheck {
    const char* tag;
    const char* source;  // path without extension
    int line;
    const char* text;
};

namespace checks {

#define QM_COMPONENT_PATH "frameworks/av/services/mediaeditorservice/Transcode/"

constexpr const char* kSession = QM_COMPONENT_PATH "Transcode";
constexpr const char* kAudio = QM_COMPONENT_PATH "TAudioSource";
constexpr const char* kVideo = QM_COMPONENT_PATH "TVideoSource";

#undef QM_COMPONENT_PATH

// clang-format off
constexpr FatalCheck
    // Track selection.
    kTrackMime{"Transcode", kSession, 667,
        "mpTrack[i].mFormat->findString(\"mime\", &mime)"},
    kAudioDecoder{"Transcode", kSession, 688, "mpTrack[i].mCodecStatus->mCodec != NULL"},
    kAudioDecoderConfigured{"Transcode", kSession, 697, "err,(status_t)OK"},
    kVideoDecoder{"Transcode", kSession, 728, "mpTrack[i].mCodecStatus->mCodec != NULL"},
    kTrackDuration{"Transcode", kSession, 774,
        "mpTrack[i].mFormat->findInt64(\"durationUs\", &duration)"},
    // Input reader.
    kSampleRead{"Transcode", kSession, 892, "err,(status_t)OK"},
    kSampleTime{"Transcode", kSession, 895, "err,(status_t)OK"},
    kSampleMeta{"Transcode", kSession, 899, "err,(status_t)OK"},
    kDecoderEndQueued{"Transcode", kSession, 997, "err,(status_t)OK"},
    // Main loop.
    kDecoderStarted{"Transcode", kSession, 1064,
        "(status_t)OK,mpTrack[i].mCodecStatus->mCodec->start()"},
    kDecoderInputs{"Transcode", kSession, 1065,
        "(status_t)OK,mpTrack[i].mCodecStatus->mCodec->getInputBuffers(&mpTrack[i].mCodecStatus->mInBuffers)"},
    kDecoderOutputs{"Transcode", kSession, 1066,
        "(status_t)OK,mpTrack[i].mCodecStatus->mCodec->getOutputBuffers(&mpTrack[i].mCodecStatus->mOutBuffers)"},
    kWriterStarted{"Transcode", kSession, 1120, "(status_t)OK,mMP4Writer->start(mFileMeta.get())"},
    kDecoderReleased{"Transcode", kSession, 1226, "(status_t)OK,state->mCodec->release()"},
    // Decoder drain.
    kDroppedFrameReleased{"Transcode", kSession, 1303, "err,(status_t)OK"},
    kFrameReleased{"Transcode", kSession, 1329, "err,(status_t)OK"},
    kNewDecoderOutputs{"Transcode", kSession, 1334,
        "(status_t)OK,state->mCodec->getOutputBuffers(&state->mOutBuffers)"},
    kNewDecoderFormat{"Transcode", kSession, 1340,
        "(status_t)OK,state->mCodec->getOutputFormat(&format)"},
    kDecoderOutputResult{"Transcode", kSession, 1349, "err,-11"},
    // Audio encoder thread.
    kAudioEncoderInputs{"AudioEncoderThread", kAudio, 647,
        "(status_t)OK,mAudioEncoder.mCodec->getInputBuffers(&mAudioEncoder.mInBuffers)"},
    kAudioEncoderOutputs{"AudioEncoderThread", kAudio, 648,
        "(status_t)OK,mAudioEncoder.mCodec->getOutputBuffers(&mAudioEncoder.mOutBuffers)"},
    kNewAudioEncoderOutputs{"AudioEncoderThread", kAudio, 1020,
        "(status_t)OK,mAudioEncoder.mCodec->getOutputBuffers(&mAudioEncoder.mOutBuffers)"},
    kNewAudioEncoderFormat{"AudioEncoderThread", kAudio, 1025,
        "(status_t)OK,mAudioEncoder.mCodec->getOutputFormat(&format)"},
    // Video encoder thread.
    kVideoEncoderInputs{"VideoEncoderThread", kVideo, 648,
        "(status_t)OK,mVideoEncoder.mCodec->getInputBuffers(&mVideoEncoder.mInBuffers)"},
    kVideoEncoderOutputs{"VideoEncoderThread", kVideo, 650,
        "(status_t)OK,mVideoEncoder.mCodec->getOutputBuffers(&mVideoEncoder.mOutBuffers)"},
    kNewVideoEncoderOutputs{"VideoEncoderThread", kVideo, 997,
        "(status_t)OK,mVideoEncoder.mCodec->getOutputBuffers(&mVideoEncoder.mOutBuffers)"},
    kNewVideoEncoderFormat{"VideoEncoderThread", kVideo, 1002,
        "(status_t)OK,mVideoEncoder.mCodec->getOutputFormat(&format)"};
// clang-format on

}  // namespace checks

// "<source>:<line> CHECK(<text>) failed." unless `holds`.
inline void check(const FatalCheck& c, bool holds) {
    if (holds) return;
    __android_log_assert(c.text, c.tag, "%s:%d CHECK(%s) failed.", c.source, c.line, c.text);
}

// "<source>:<line> CHECK_EQ( <text>) failed: <first> vs. <second>" unless both are equal.
inline void checkEqual(const FatalCheck& c, status_t first, status_t second) {
    if (first == second) return;
    __android_log_assert(c.text, c.tag, "%s:%d CHECK_EQ( %s) failed: %d vs. %d", c.source, c.line,
                         c.text, first, second);
}

// `message` unless `allowed`: for a host that breaks a rule of the interface.
inline void checkRule(const char* tag, const char* message, bool allowed) {
    if (!allowed) __android_log_assert(nullptr, tag, "%s", message);
}

// The codec's buffer of that index, which it must have.
inline const sp<MediaCodecBuffer>& bufferAt(const char* tag,
                                            const Vector<sp<MediaCodecBuffer>>& buffers,
                                            size_t index) {
    if (index >= buffers.size()) {
        __android_log_assert("index>=size()", tag, "%s: index=%zu out of range (%zu)",
                             __PRETTY_FUNCTION__, index, buffers.size());
    }
    return buffers[index];
}

}  // namespace qmmediaeditor
}  // namespace android
