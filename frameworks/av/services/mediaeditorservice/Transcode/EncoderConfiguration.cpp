// Derives the attributes of the encoders from the input's formats and the request.
#include <Log.h>
#include <SaturatingMath.h>
#include <Transcode.h>
#include <media/stagefright/MediaCodecConstants.h>
#include <media/stagefright/foundation/MediaDefs.h>

#include <algorithm>

namespace android {
namespace qmmediaeditor {

namespace {

constexpr int32_t kFileTypeMpeg4 = 2;
constexpr int32_t kDefaultAudioBitrate = 1048576;
constexpr int32_t kMaxAudioInputSize = 1048576;
constexpr int64_t kUsPerSecond = 1000000;

constexpr int32_t kMaxBitrateAbove720p = 17000000;
constexpr int32_t kMaxBitrateUpTo720p = 12000000;
constexpr int64_t kPixelsOf720p = 921600;

// Bytes of an AVC csd-0 that hold start code, NAL header, profile, constraints and level.
constexpr size_t kAvcCsdHeaderBytes = 8;

// A message with another what-code is treated like no request.
bool isOutputRequest(const sp<AMessage>& request) {
    return request != nullptr && request->what() == kOutputFormatWhat;
}

int32_t int32Or(const AMessage& message, const char* name, int32_t absent) {
    int32_t value = absent;
    message.findInt32(name, &value);
    return value;
}

struct AudioEncoderChoice {
    int32_t value;
    const char* const* mime;
    int32_t aacProfile;
};
constexpr AudioEncoderChoice kAudioEncoders[] = {
    {0, &MEDIA_MIMETYPE_AUDIO_AMR_NB, 0}, {1, &MEDIA_MIMETYPE_AUDIO_AMR_NB, 0},
    {2, &MEDIA_MIMETYPE_AUDIO_AMR_WB, 0}, {3, &MEDIA_MIMETYPE_AUDIO_AAC, 1},
    {4, &MEDIA_MIMETYPE_AUDIO_AAC, 5},    {5, &MEDIA_MIMETYPE_AUDIO_AAC, 39},
};

struct VideoEncoderChoice {
    int32_t value;
    const char* const* mime;
};
constexpr VideoEncoderChoice kVideoEncoders[] = {
    {0, &MEDIA_MIMETYPE_VIDEO_AVC},  {2, &MEDIA_MIMETYPE_VIDEO_AVC},
    {1, &MEDIA_MIMETYPE_VIDEO_H263}, {3, &MEDIA_MIMETYPE_VIDEO_MPEG4},
    {4, &MEDIA_MIMETYPE_VIDEO_VP8},
};

// profile_idc or level_idc of an AVC sequence header (ITU-T H.264, 7.3.2.1), and the platform's bit
// for it. Values that are not listed give 0.
struct AvcCode {
    int idc;
    int bit;
};
constexpr AvcCode kAvcProfiles[] = {
    {66, AVCProfileBaseline}, {77, AVCProfileMain},    {88, AVCProfileExtended},
    {100, AVCProfileHigh},    {110, AVCProfileHigh10}, {122, AVCProfileHigh422},
    {244, AVCProfileHigh444},
};
constexpr AvcCode kAvcLevels[] = {
    {11, AVCLevel11}, {12, AVCLevel12}, {13, AVCLevel13}, {20, AVCLevel2},
    {21, AVCLevel21}, {22, AVCLevel22}, {30, AVCLevel3},  {31, AVCLevel31},
    {32, AVCLevel32}, {40, AVCLevel4},  {41, AVCLevel41}, {42, AVCLevel42},
};

template <size_t N>
int platformBit(const AvcCode (&codes)[N], int idc) {
    for (const AvcCode& code : codes) {
        if (code.idc == idc) return code.bit;
    }
    return 0;
}

void applyAudioRequest(AudioAttribute* attribute, const AMessage& request) {
    attribute->mBitrate = int32Or(request, "audio-bitrate", 12800);
    attribute->mSampleRate = int32Or(request, "audio-samplerate", 8000);
    attribute->mChannelCount = int32Or(request, "audio-channels", 1);
    attribute->mBitsPerSample = int32Or(request, "audio-bitspersample", 16);
    int32_t encoder;
    if (!request.findInt32("audio-encoder", &encoder)) return;
    for (const AudioEncoderChoice& choice : kAudioEncoders) {
        if (choice.value != encoder) continue;
        attribute->mMime = *choice.mime;
        attribute->mAacProfile = choice.aacProfile;
    }
}

void applyVideoRequest(VideoAttribute* attribute, const AMessage& request) {
    request.findInt32("video-width", &attribute->mOutputWidth);
    request.findInt32("video-height", &attribute->mOutputHeight);
    const int32_t rate = int32Or(request, "video-framerate", 0);
    // A request without a rate means 15 frames per second, not the input's rate.
    attribute->mOutputFrameRate = rate > 0 ? rate : 15;
    request.findInt32("video-bitrate", &attribute->mBitrate);
    int32_t encoder;
    if (!request.findInt32("video-encoder", &encoder)) return;
    for (const VideoEncoderChoice& choice : kVideoEncoders) {
        if (choice.value == encoder) attribute->mMime = *choice.mime;
    }
}

// At least three seconds, and at least `frames` frames in its whole seconds.
bool isLongEnough(int64_t durationUs, int32_t frameRate, int64_t frames) {
    return durationUs >= 3 * kUsPerSecond &&
           saturatingMul(durationUs / kUsPerSecond, frameRate) >= frames;
}

}  // namespace

int Transcode::setEncoderInfo() {
    QM_LOGV(kTag, "Call setEncoderInfo start");
    int32_t fileType = kFileTypeMpeg4;
    if (isOutputRequest(mOutputFormat)) {
        fileType = int32Or(*mOutputFormat, "file-format", kFileTypeMpeg4);
        mAcceptAudioFormatChange = true;
    }
    mFileMeta->setInt32(kKeyFileType, fileType);

    if (mFileAttribute.mHasAudio) {
        setAudioEncoderInfo(&mAudioAttribute, mpTrack[mAudioAttribute.mAudioTrackIndex].mFormat,
                            mOutputFormat, false);
    }
    sp<AMessage> videoFormat;
    if (mFileAttribute.mHasVideo) {
        videoFormat = mpTrack[mVideoTrackIndex].mFormat;
        setVideoEncoderInfo(&mVideoAttribute, videoFormat, mOutputFormat, false);
    }
    sp<AMessage> fileFormat;
    if (mExtractor->getFileFormat(&fileFormat) == OK) {
        checkPTrimPolicy(fileFormat, videoFormat, &mAudioAttribute, &mVideoAttribute);
    }
    QM_LOGV(kTag, "Call setEncoderInfo end");
    return OK;
}

int Transcode::setAudioEncoderInfo(AudioAttribute* attribute, sp<AMessage> format,
                                   sp<AMessage> request, bool onlyInput) {
    QM_LOGV(kTag, "setAudioEncoderInfo[%d]", onlyInput);
    readAudioInput(attribute, *format);
    if (onlyInput) return OK;

    attribute->mInputBitsPerSample =
        int32Or(*format, "sbit", int32Or(*format, "bits-per-sample", 16));
    attribute->mMime = MEDIA_MIMETYPE_AUDIO_AAC;
    attribute->mSampleRate = attribute->mInputSampleRate;
    attribute->mChannelCount = attribute->mInputChannelCount;
    attribute->mBitsPerSample = attribute->mInputBitsPerSample;
    attribute->mAacProfile = int32Or(*format, "aac-profile", 1);

    if (format->findInt32("bitrate", &attribute->mBitrate)) {
        if (attribute->mBitrate == 0) attribute->mBitrate = kDefaultAudioBitrate;
        QM_LOGV(kTag, "set input bit-rate : %d", attribute->mBitrate);
    } else {
        attribute->mBitrate = kDefaultAudioBitrate;
        QM_LOGV(kTag, "set default bit-rate : %d", attribute->mBitrate);
    }
    if (isOutputRequest(request)) {
        applyAudioRequest(attribute, *request);
    } else {
        attribute->mCsd.clear();
        QM_LOGV(kTag, "set input csd as NULL");
    }
    attribute->mMaxInputSize = kMaxAudioInputSize;
    attribute->mHasEffect = mProperty->mHasAudioEffect;
    attribute->mEffectInfo = mProperty->mAudioEffectInfo;
    attribute->mEffectParam = mProperty->mAudioEffectParam;
    return OK;
}

// Sets the input's channel count and sample rate from the format. A value that the format lacks
// stays as it was.
void Transcode::readAudioInput(AudioAttribute* attribute, const AMessage& format) const {
    if (!format.findInt32("channel-count", &attribute->mInputChannelCount)) {
        QM_LOGW(kTag, "can not find channel-count");
    }
    if (!format.findInt32("sample-rate", &attribute->mInputSampleRate)) {
        QM_LOGW(kTag, "can not find sample-rate");
    }
}

int Transcode::setVideoEncoderInfo(VideoAttribute* attribute, sp<AMessage> format,
                                   sp<AMessage> request, bool onlyInput) {
    QM_LOGV(kTag, "setVideoEncoderInfo[%d]", onlyInput);
    readVideoInput(attribute, *format);
    if (onlyInput) return OK;

    attribute->mMime = MEDIA_MIMETYPE_VIDEO_AVC;
    format->findString("mime", &attribute->mInputMime);
    attribute->mOutputWidth = attribute->mWidth;
    attribute->mOutputHeight = attribute->mHeight;
    // 29.97 is truncated to 29 by the integer "frame-rate".
    attribute->mOutputFrameRate = attribute->mFrameRate == 29 ? 30 : attribute->mFrameRate;
    QM_LOGV(kTag, "Input file fps : %d", attribute->mFrameRate);
    chooseFrameBufferSize(attribute);
    chooseVideoBitrate(attribute, *format);
    attribute->mIFrameInterval = 1;

    const bool requested = isOutputRequest(request);
    if (requested) applyVideoRequest(attribute, *request);

    attribute->mRotation = 0;
    if (format->findInt32("rotation-degrees", &attribute->mRotation)) {
        QM_LOGV(kTag, "Video rotation : %d", attribute->mRotation);
        mFileMeta->setInt32(kKeyRotation, attribute->mRotation);
    }
    chooseProfileAndLevel(attribute, *format, requested);

    attribute->mUseSurface = mProperty->mUseInputSurface;
    attribute->mColorFormat =
        attribute->mUseSurface ? COLOR_FormatSurface : COLOR_FormatYUV420Planar;
    attribute->mSurfaceParam1 = mProperty->mVideoParam1;
    attribute->mSurfaceParam2 = mProperty->mVideoParam2;
    return OK;
}

// The size and rate of the visible frame, and the stride and height of its planes.
void Transcode::readVideoInput(VideoAttribute* attribute, const AMessage& format) const {
    format.findInt32("width", &attribute->mWidth);
    format.findInt32("height", &attribute->mHeight);
    int32_t left, top, right, bottom;
    if (format.findRect("crop", &left, &top, &right, &bottom)) {
        attribute->mWidth = clampToInt32(int64_t{right} + 1 - left);
        attribute->mHeight = clampToInt32(int64_t{bottom} + 1 - top);
    }
    attribute->mFrameRate = int32Or(format, "frame-rate", 0);
    attribute->mStride = int32Or(format, "stride", attribute->mWidth);
    attribute->mSliceHeight = int32Or(format, "slice-height", attribute->mHeight);
    attribute->mNeedCopy =
        attribute->mStride != attribute->mWidth || attribute->mSliceHeight != attribute->mHeight;
}

// Frames are handed over in batches only when the output is long enough to fill one.
void Transcode::chooseFrameBufferSize(VideoAttribute* attribute) const {
    attribute->mFrameBufferSize = 0;
    if (isLongEnough(mFileAttribute.mDurationUs, attribute->mFrameRate, 10)) {
        bool hold = true;
        if (isTrimming()) {
            const TrimPeriod& first = mProperty->mPeriods[0];
            hold = isLongEnough(saturatingSub(first.mEndUs, first.mStartUs), attribute->mFrameRate,
                                15);
        }
        if (hold) attribute->mFrameBufferSize = 10;
    }
    QM_LOGV(kTag, "frameBufferSize : %d", attribute->mFrameBufferSize);
}

void Transcode::chooseVideoBitrate(VideoAttribute* attribute, const AMessage& format) const {
    const int64_t pixels = static_cast<int64_t>(attribute->mWidth) * attribute->mHeight;
    const int32_t cap = pixels > kPixelsOf720p ? kMaxBitrateAbove720p : kMaxBitrateUpTo720p;
    // Below one second the estimate would divide by zero: the cap is used.
    const int64_t seconds = mFileAttribute.mDurationUs / kUsPerSecond;
    const int64_t estimate =
        seconds < 1 ? cap : saturatingMul(mFileAttribute.mFileSize, 8) / seconds;
    QM_LOGV(kTag, "EstimateBitrate : %lld", wide(estimate));

    const auto estimated = static_cast<int32_t>(std::min<int64_t>(estimate, cap));
    if (format.findInt32("bitrate", &attribute->mBitrate)) {
        if (attribute->mBitrate == 0) attribute->mBitrate = estimated;
        QM_LOGV(kTag, "set input bit-rate : %d", attribute->mBitrate);
    } else {
        attribute->mBitrate = estimated;
        QM_LOGV(kTag, "set default bit-rate : %d", attribute->mBitrate);
    }
}

// Without a request, the output has the profile and level of an AVC input. Else the encoder
// chooses.
void Transcode::chooseProfileAndLevel(VideoAttribute* attribute, const AMessage& format,
                                      bool requested) const {
    attribute->mProfile = 0;
    attribute->mLevel = 0;
    if (requested || !attribute->mInputMime.equalsIgnoreCase(MEDIA_MIMETYPE_VIDEO_AVC)) return;
    sp<ABuffer> csd;
    if (!format.findBuffer("csd-0", &csd) || csd == nullptr || csd->size() < kAvcCsdHeaderBytes) {
        return;
    }
    findAVCVideoProfile(csd->data(), &attribute->mProfile, &attribute->mLevel);
}

// `csd` is a sequence parameter set in start-code form, of kAvcCsdHeaderBytes or more.
int Transcode::findAVCVideoProfile(unsigned char* csd, int* profile, int* level) {
    const int profileIdc = csd[5];
    const int levelIdc = csd[7];
    QM_LOGD(kTag, "csd Profile: %d, csd Level: %d", profileIdc, levelIdc);
    *profile = platformBit(kAvcProfiles, profileIdc);
    *level = platformBit(kAvcLevels, levelIdc);
    QM_LOGD(kTag, "*Profile: 0x%x, *Level: 0x%x", static_cast<unsigned>(*profile),
            static_cast<unsigned>(*level));
    return OK;
}

// Switches trimming by presentation times (mPTrimEnabled) off for every input. The input reader
// still has the code for it.
int Transcode::checkPTrimPolicy(sp<AMessage> fileFormat, sp<AMessage> /* videoFormat */,
                                AudioAttribute* /* audio */, VideoAttribute* video) {
    if (mProperty->mPeriodCount < 2) {
        AString container;
        fileFormat->findString("mime", &container);
        QM_LOGD(kTag, "container: %s", container.c_str());
    }
    mPTrimEnabled = false;
    video->mPTrim = 0;
    return OK;
}

}  // namespace qmmediaeditor
}  // namespace android
