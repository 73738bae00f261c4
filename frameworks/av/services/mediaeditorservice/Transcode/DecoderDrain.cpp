// Takes decoded buffers from the decoders, rebases them onto the output's time line and hands them
// to the sources.
#include <Log.h>
#include <Transcode.h>

namespace android {
namespace qmmediaeditor {

namespace {

const char* kindOf(bool isAudio) { return isAudio ? "Audio" : "Video"; }

}  // namespace

// One output event of one decoder. A frame outside of the trim periods gives -1011, as a finished
// track does.
status_t Transcode::runDecoder(List<TDecodedSample>* list, int trackIndex, int64_t timeoutUs) {
    Track& track = mpTrack[trackIndex];
    CodecState* state = track.mCodecStatus;
    if (state->mSawOutputEOS) {
        QM_LOGD(kTag, "[%s] CodecSource stopped", kindOf(state->mIsAudio));
        return ERROR_END_OF_STREAM;
    }
    if (mForceStop) {
        QM_LOGV(kTag, "force stop in runDecoder");
        return ERROR_END_OF_STREAM;
    }

    TDecodedSample sample;
    const status_t err =
        state->mCodec->dequeueOutputBuffer(&sample.mIndex, &sample.mOffset, &sample.mSize,
                                           &sample.mPresentationTimeUs, &sample.mFlags, timeoutUs);
    switch (err) {
        case OK:
            return handleDecodedFrame(track, &sample, list);
        case INFO_OUTPUT_BUFFERS_CHANGED:
            QM_LOGV(kTag, "INFO_OUTPUT_BUFFERS_CHANGED");
            checkEqual(checks::kNewDecoderOutputs, OK,
                       state->mCodec->getOutputBuffers(&state->mOutBuffers));
            QM_LOGV(kTag, "got %zu output buffers", state->mOutBuffers.size());
            return err;
        case INFO_FORMAT_CHANGED:
            return handleFormatChange(state);
        default:
            break;
    }
    checkEqual(checks::kDecoderOutputResult, err, -EAGAIN);
    // sample.mIndex is still 0. The codec refuses the release, because the session does not hold
    // that buffer.
    state->mCodec->releaseOutputBuffer(sample.mIndex);
    QM_LOGV(kTag, "decoder output -EAGAIN:-11:[R:%d]", -EAGAIN);
    if (mForceStop) {
        QM_LOGV(kTag, "force stop in runDecoder");
        return ERROR_END_OF_STREAM;
    }
    return err;
}

// The decoder's buffer goes back only after the source has taken its copy.
status_t Transcode::handleDecodedFrame(Track& track, TDecodedSample* sample,
                                       List<TDecodedSample>* list) {
    CodecState* state = track.mCodecStatus;
    const bool last = (sample->mFlags & MediaCodec::BUFFER_FLAG_EOS) != 0;
    if (mProperty->mTrimEnabled && !last && !adjustPresentationTimeUs(sample)) {
        const status_t err = state->mCodec->releaseOutputBuffer(sample->mIndex);
        checkEqual(checks::kDroppedFrameReleased, err, OK);
        return ERROR_END_OF_STREAM;
    }
    ++state->mDecodedFrameCount;
    state->mDecodedByteCount += sample->mSize;
    sample->mBuffer = bufferAt(kTag, state->mOutBuffers, sample->mIndex);
    status_t result = OK;
    if (list != nullptr) {
        list->push_back(*sample);
        result = copyDecodedBufferNEncoder(track, list);
    }
    if (last) {
        QM_LOGD(kTag, "[%s] reached EOS on output", kindOf(state->mIsAudio));
        state->mSawOutputEOS = true;
    }
    const status_t err = state->mCodec->releaseOutputBuffer(sample->mIndex);
    checkEqual(checks::kFrameReleased, err, OK);
    return result;
}

status_t Transcode::handleFormatChange(CodecState* state) {
    sp<AMessage> format;
    checkEqual(checks::kNewDecoderFormat, OK, state->mCodec->getOutputFormat(&format));
    if (state->mIsAudio && !mAcceptAudioFormatChange) return INFO_FORMAT_CHANGED;
    return setDecoderOutputFormat(state->mIsAudio, format);
}

// False for a frame outside of the periods, [start, end) in input time. One period is finished at
// the most.
bool Transcode::adjustPresentationTimeUs(TDecodedSample* sample) {
    const int32_t i = mCurrentPeriodIndex;
    const int32_t n = mProperty->mPeriodCount;
    if (i >= n) return false;
    const int64_t timeUs = sample->mPresentationTimeUs;
    const TrimPeriod* periods = mProperty->mPeriods;
    if (timeUs >= periods[i].mEndUs) {
        const bool goBack = i + 1 < n && periods[i + 1].mStartUs < periods[i].mEndUs;
        finishPeriod();
        if (goBack) {
            mSeekTime = periods[i + 1].mStartUs;
            // Published after finishPeriod(), because the input reader seeks to the start of the
            // current period.
            mNeedtoSeek.publish(true);
            QM_LOGD(kTag, "mNeedtoSeek : %s, mSeekTime: %lld", "true",
                    wide(periods[i + 1].mStartUs));
        }
        if (mCurrentPeriodIndex >= n) return false;
    }
    if (!isInCurrentPeriod(timeUs)) return false;
    sample->mPresentationTimeUs = rebased(timeUs);
    return true;
}

// mLock is held while the push waits for room in the source. The threads that make room do not take
// mLock.
status_t Transcode::copyDecodedBufferNEncoder(Track& track, List<TDecodedSample>* list) {
    Mutex::Autolock guard(mLock);
    TDecodedSample copy = *list->begin();
    const bool isAudio = track.mCodecStatus->mIsAudio;
    QM_LOGV(kTag, "Decoded frame size : %zu, [%s]", copy.mSize, kindOf(isAudio));
    status_t err;
    if (isAudio) {
        err = mAudioSource->pushDecodedBuffer(copy, false);
    } else {
        mPeriodChanged = false;
        copy.mColorFormat = mVideoAttribute.mDecoderColorFormat;
        err = mVideoSource->pushDecodedBuffer(copy, false);
    }
    list->erase(list->begin());
    // A sample that could not be copied would be missing in a file that looks whole.
    if (err == BAD_VALUE) return kEncoderError;
    return OK;
}

// The decoder has reported its output format, from which the source can make its encoder.
status_t Transcode::setDecoderOutputFormat(bool isAudio, sp<AMessage> format) {
    status_t err;
    if (isAudio) {
        setAudioEncoderInfo(&mAudioAttribute, format, mOutputFormat, true);
        err = mAudioSource->enable(mAudioAttribute, format);
    } else {
        int32_t colorFormat = 0;
        format->findInt32("color-format", &colorFormat);
        if (colorFormat == COLOR_FormatYUV420Planar ||
            colorFormat == COLOR_FormatYUV420SemiPlanar) {
            mVideoAttribute.mDecoderColorFormat = colorFormat;
        } else {
            QM_LOGE(kTag, "error : not support color format %d", colorFormat);
        }
        setVideoEncoderInfo(&mVideoAttribute, format, mOutputFormat, true);
        err = mVideoSource->enable(mVideoAttribute, format);
    }
    if (err != OK) {
        QM_LOGE(kTag, "error : encoder enable failed %d", err);
        return kEncoderError;
    }
    return OK;
}

}  // namespace qmmediaeditor
}  // namespace android
