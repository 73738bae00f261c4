// Picks the first audio and the first video track and sets up their decoders.
#include <Log.h>
#include <Transcode.h>
#include <editorutils/Adapter.h>
#include <editorutils/MediaEditorDefs.h>
#include <string.h>
#include <utils/ThreadDefs.h>

namespace android {
namespace qmmediaeditor {

namespace {

bool isUsable(const AString& mime, const char* prefix, const char* unsupported) {
    return mime.startsWithIgnoreCase(prefix) && !mime.equalsIgnoreCase(unsupported);
}

}  // namespace

int Transcode::createTrack() {
    mTrackCount = static_cast<int32_t>(mExtractor->countTracks());
    mpTrack = new Track[static_cast<size_t>(mTrackCount)];
    for (int32_t i = 0; i < mTrackCount; ++i) {
        if (mExtractor->getTrackFormat(static_cast<size_t>(i), &mpTrack[i].mFormat) != OK) {
            QM_LOGE(kTag, "Failed get track format");
            return kSessionFailed;
        }
        AString mime;
        check(checks::kTrackMime, mpTrack[i].mFormat->findString("mime", &mime));

        int err;
        if (!mFileAttribute.mHasAudio &&
            isUsable(mime, "audio/", MEDIAEDITOR_MIMETYPE_AUDIO_NOTSUPPORTED)) {
            err = createAudioDecoder(i, mime);
        } else if (!mFileAttribute.mHasVideo &&
                   isUsable(mime, "video/", MEDIAEDITOR_MIMETYPE_VIDEO_NOTSUPPORTED)) {
            err = createVideoDecoder(i, mime);
        } else {
            mpTrack[i].mSelected = false;
            continue;
        }
        if (err == OK) err = selectTrackAt(i);
        if (err != OK) return err;
    }
    return OK;
}

int Transcode::createAudioDecoder(int32_t i, const AString& mime) {
    Track& track = mpTrack[i];
    mAudioAttribute.mAudioTrackIndex = i;
    mFileAttribute.mHasAudio = 1;
    track.mSelected = true;
    QM_LOGV(kTag, "Transcoder Constructor Audio: %s", track.mFormat->debugString().c_str());
    if (const int err = makeDecoder(track, mime, true); err != OK) return err;

    // The decoder must not drop leading samples: the time line is kept whole.
    int32_t delay = 0;
    if (track.mFormat->findInt32("encoder-delay", &delay) && delay >= 1) {
        QM_LOGV(kTag, "encoder delay is %d. set to zero", delay);
        track.mFormat->setInt32("encoder-delay", 0);
    }
    const status_t err = track.mCodecStatus->mCodec->configure(track.mFormat, nullptr, nullptr, 0);
    checkEqual(checks::kAudioDecoderConfigured, err, OK);
    return OK;
}

int Transcode::createVideoDecoder(int32_t i, const AString& mime) {
    Track& track = mpTrack[i];
    mVideoTrackIndex = i;
    mFileAttribute.mHasVideo = 1;
    track.mSelected = true;
    track.mFormat->setInt32("color-format", COLOR_FormatYUV420Planar);
    QM_LOGV(kTag, "Transcoder Constructor video: %s", track.mFormat->debugString().c_str());
    if (const int err = makeDecoder(track, mime, false); err != OK) return err;
    chooseDithering(track.mFormat.get());
    const status_t err = track.mCodecStatus->mCodec->configure(track.mFormat, mSurface, nullptr, 0);
    if (err != OK) {
        QM_LOGE(kTag, "unable to configure decoder");
        return err;
    }
    if (strcmp(mime.c_str(), "video/avc") == 0) {
        track.mFormat->findBuffer("csd-0", &mVideoAttribute.mAvcCsd0);
        track.mFormat->findBuffer("csd-1", &mVideoAttribute.mAvcCsd1);
    }
    return OK;
}

// Makes the track's decoder on the looper of its kind, which the first decoder starts. 0, or
// kNoThread.
int Transcode::makeDecoder(Track& track, const AString& mime, bool isAudio) {
    sp<ALooper>& looper = isAudio ? mAudioDecoderLooper : mVideoDecoderLooper;
    if (looper == nullptr) {
        const sp<ALooper> started = new ALooper;
        started->setName(isAudio ? "T_Audio-Decoder-Looper" : "T_Video-Decoder-Looper");
        if (started->start(false, false, ANDROID_PRIORITY_AUDIO) != OK) return kNoThread;
        looper = started;
    }
    track.mCodecStatus = new CodecState;
    track.mCodecStatus->mIsAudio = isAudio;
    sp<MediaCodec>& codec = track.mCodecStatus->mCodec;
    codec = MediaCodec::CreateByType(looper, mime, false, nullptr, MediaCodec::kNoPid,
                                     MediaCodec::kNoUid);
    check(isAudio ? checks::kAudioDecoder : checks::kVideoDecoder, codec != nullptr);
    return OK;
}

void Transcode::chooseDithering(AMessage* format) {
    int32_t isHdr = 0;
    if (!format->findInt32("android._is-hdr", &isHdr) || isHdr == 0) return;
    QM_LOGD(kTag, "isHDR - I420");
    int type = 0;
    if (Adapter::GetUseDitherTypeFromBrunch(&type)) {
        QM_LOGD(kTag, "[HDR] set dither type : %d", type);
        format->setInt32("dither-type", type);
    } else {
        format->setInt32("color-format", COLOR_FormatYUV420Planar);
    }
}

// Has the extractor deliver the track, and takes its duration into account.
int Transcode::selectTrackAt(int32_t i) {
    QM_LOGV(kTag, "selecting track %d", i);
    if (mExtractor->selectTrack(static_cast<size_t>(i)) != OK) {
        QM_LOGE(kTag, "Failed selecting track");
        return kSessionFailed;
    }
    int64_t duration = 0;
    check(checks::kTrackDuration, mpTrack[i].mFormat->findInt64("durationUs", &duration));
    if (mFileAttribute.mDurationUs == 0 || duration > mFileAttribute.mDurationUs) {
        mFileAttribute.mDurationUs = duration;
    }
    return OK;
}

}  // namespace qmmediaeditor
}  // namespace android
