// Codec-specific data in the form in which the platform's formats carry it. Each function returns
// false when memory is short. Any thread.
#pragma once

#include <media/stagefright/foundation/AMessage.h>
#include <stddef.h>
#include <stdint.h>

namespace android {
namespace qmmediaeditor {

// Sets "csd-0" and "csd-1" from an AVC track's extradata, an AVCDecoderConfigurationRecord (ISO/IEC
// 14496-15) or a byte stream (ITU-T H.264, annex B): the sequence parameter sets in the first, the
// picture parameter sets in the second, each behind a start code. Sets nothing when there are none.
bool setAvcConfig(const uint8_t* extradata, size_t size, const sp<AMessage>& format);

// Sets "csd-0" from an HEVC track's: all parameter sets, each behind a start code.
bool setHevcConfig(const uint8_t* extradata, size_t size, const sp<AMessage>& format);

// Sets "csd-0" to the bytes themselves.
bool setPlainConfig(const uint8_t* extradata, size_t size, const sp<AMessage>& format);

}  // namespace qmmediaeditor
}  // namespace android
