// Limits of the codecs of the output: for the table of codecs, and for the command, which
// checks a request before it loads a media library.
#pragma once

namespace android {
namespace qmmediaeditor {

// Falling; ISO/IEC 14496-3, table 1.18.
constexpr int kAacSampleRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                   22050, 16000, 12000, 11025, 8000,  7350};
constexpr int kAacMaxChannels = 8;
// AMR is mono and has one sample rate.
constexpr int kAmrNbSampleRate = 8000;
constexpr int kAmrWbSampleRate = 16000;
// ISO/IEC 14496-2 has 13 bits for the width and for the height.
constexpr int kMpeg4MaxSide = (1 << 13) - 1;
// libavcodec's encoder allocates 12.2 bytes for each pixel at once, of the 256 MiB that it may.
constexpr int kMpeg4MaxPixels = 21000000;

}  // namespace qmmediaeditor
}  // namespace android
