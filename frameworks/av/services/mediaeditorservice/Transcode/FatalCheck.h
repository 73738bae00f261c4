// Invariants of the platform and rules for the host whose violation ends the process.
//
// The text of a failed check is part of the log's vocabulary, line number included, so both are
// given by the caller and do not follow the code around.
#pragma once

#include <android/log.h>
#include <media/MediaCodecBuffer.h>
#include <stddef.h>
#include <utils/Errors.h>
#include <utils/Vector.h>

#define QM_COMPONENT_PATH "frameworks/av/services/mediaeditorservice/Transcode/"

namespace android {
namespace qmmediaeditor {

class FatalCheck {
public:
    // `source` is the path without extension that the messages begin with.
    constexpr FatalCheck(const char* tag, const char* source) : mTag(tag), mSource(source) {}

    // "<source>:<line> CHECK(<text>) failed." unless `holds`.
    void isTrue(int line, const char* text, bool holds) const {
        if (holds) return;
        __android_log_assert(text, mTag, "%s:%d CHECK(%s) failed.", mSource, line, text);
    }

    // "<source>:<line> CHECK_EQ( <text>) failed: <first> vs. <second>" unless both are equal.
    void areEqual(int line, const char* text, status_t first, status_t second) const {
        if (first == second) return;
        __android_log_assert(text, mTag, "%s:%d CHECK_EQ( %s) failed: %d vs. %d", mSource, line,
                             text, first, second);
    }

    // `message` unless `allowed`: for a host that breaks a rule of the interface.
    void isAllowed(const char* message, bool allowed) const {
        if (!allowed) __android_log_assert(nullptr, mTag, "%s", message);
    }

    // The codec's buffer of that index, which it must have.
    const sp<MediaCodecBuffer>& bufferAt(const Vector<sp<MediaCodecBuffer>>& buffers,
                                         size_t index) const {
        if (index >= buffers.size()) {
            __android_log_assert("index>=size()", mTag, "%s: index=%zu out of range (%zu)",
                                 __PRETTY_FUNCTION__, index, buffers.size());
        }
        return buffers[index];
    }

private:
    const char* mTag;
    const char* mSource;
};

}  // namespace qmmediaeditor
}  // namespace android
