// The input reader, a thread that moves encoded samples from the extractor to the decoders and
// reports the progress. Also the arithmetic of the periods, which the main loop shares.
#include <Log.h>
#include <SaturatingMath.h>
#include <Transcode.h>
#include <media/stagefright/MediaErrors.h>
#include <string.h>

#include <algorithm>

namespace android {
namespace qmmediaeditor {

namespace {

constexpr int kMaxAudioReadAhead = 6;
constexpr int kMaxVideoReadAhead = 11;

void readSampleMeta(const MetaData& meta, int64_t* durationUs, int32_t* isSyncFrame) {
    meta.findInt64(kKeyDuration, durationUs);
    meta.findInt32(kKeyIsSyncFrame, isSyncFrame);
}

}  // namespace

void Transcode::startInputPortThread() {
    QM_LOGV(kTag, "startInputPortThread start");
    mInputPort.enter();
    if (!createDetachedThread(&mInputThread, inputThreadWrapper, this)) {
        QM_LOGE(kTag, "unable to create the input thread");
        // Without a reader nothing would ever end the run.
        fail(kNoThread);
        mInputPort.leave();
    }
    QM_LOGV(kTag, "startInputPortThread end");
}

void* Transcode::inputThreadWrapper(void* self) {
    auto* session = static_cast<Transcode*>(self);
    session->inputThreadEntry();
    session->mInputPort.leave();
    return nullptr;
}

int Transcode::inputThreadEntry() {
    QM_LOGV(kTag, "inputThreadEntry start");
    ReaderState state = ReaderState::kFeeding;
    while (state != ReaderState::kEnded) {
        if (mForceStop) {
            QM_LOGV(kTag, "Force stop : so sawInputEOS is changed as ture.");
            break;
        }
        // Once the main loop has ended, nobody takes the decoders' outputs.
        if (mOutputStopped) break;
        state = state == ReaderState::kFeeding ? feedDecoder() : signalInputEOS();
    }
    mSampleBuffer.clear();
    QM_LOGV(kTag, "inputThreadEntry end");
    return 0;
}

// Tries once to queue the end of stream at each decoder that has not got it yet.
Transcode::ReaderState Transcode::signalInputEOS() {
    bool allEnded = true;
    for (int32_t i = 0; i < mTrackCount; ++i) {
        if (!mpTrack[i].mSelected || mpTrack[i].mCodecStatus->mSawInputEOS) continue;
        CodecState& state = *mpTrack[i].mCodecStatus;
        size_t index = 0;
        status_t err = state.mCodec->dequeueInputBuffer(&index, mDequeueTimeoutUs);
        if (err == OK) {
            QM_LOGV(kTag, "signalling input EOS on track %zu", static_cast<size_t>(i));
            err = state.mCodec->queueInputBuffer(index, 0, 0, 0, MediaCodec::BUFFER_FLAG_EOS,
                                                 nullptr);
            checkEqual(checks::kDecoderEndQueued, err, OK);
            state.mSawInputEOS = true;
            continue;
        }
        if (mForceStop) {
            state.mSawInputEOS = true;
            QM_LOGD(kTag, "force stop input in EAGAIN case");
            if (allEnded) QM_LOGV(kTag, "All codec was stopped");
            return ReaderState::kEnded;
        }
        if (err != -EAGAIN) QM_LOGD(kTag, "need check this error in EOS State");
        allEnded = false;
    }
    if (!allEnded) return ReaderState::kSignallingEnd;
    QM_LOGV(kTag, "All codec was stopped");
    return ReaderState::kEnded;
}

// Moves one sample to its decoder, or finds that the input has ended. A sample for which its
// decoder has no input buffer yet stays in mSampleBuffer, and the next pass only queues it.
Transcode::ReaderState Transcode::feedDecoder() {
    PendingSample sample;
    status_t err = seekIfNeeded();
    if (err == OK && mPendingSample) return queueSample(*mPendingSample);
    if (err == OK) err = nextSample(&sample);
    if (err != OK) {
        QM_LOGV(kTag, "saw input eos");
        // A failure after every selected track has ended (or when none is selected) leaves nothing
        // out.
        if (err == ERROR_END_OF_STREAM || allTracksEnded()) return ReaderState::kSignallingEnd;
        // If a read error counted as the end, an incomplete output would be reported as complete.
        QM_LOGE(kTag, "the input could not be read: %d", err);
        fail(kReadError);
        return ReaderState::kEnded;
    }
    if (sample.trackIndex >= static_cast<size_t>(mTrackCount) ||
        !mpTrack[sample.trackIndex].mSelected) {
        consumeSample(sample);
        return ReaderState::kFeeding;
    }
    readSample(&sample);
    printProgress(sample.timeUs);
    if (isTrimming() && sample.timeUs > mProperty->mPeriods[mProperty->mPeriodCount - 1].mEndUs) {
        QM_LOGD(kTag, "Trim time was overed and try force stop.");
        return ReaderState::kSignallingEnd;
    }
    mPendingSample = sample;
    return queueSample(sample);
}

status_t Transcode::seekIfNeeded() {
    if (!mNeedtoSeek.take(false)) return OK;
    mPendingSample.reset();
    const int32_t period = mCurrentPeriodIndex;
    if (mProperty->mTrimEnabled && period < mProperty->mPeriodCount) {
        mSeekTime = mProperty->mPeriods[period].mStartUs;
    }
    const int64_t seekTimeUs = mSeekTime;
    QM_LOGV(kTag, "Do transcode seekTo Prev : %lld", wide(seekTimeUs));
    const status_t err =
        mExtractor->seekTo(seekTimeUs, MediaTrack::ReadOptions::SEEK_PREVIOUS_SYNC);
    // The next sample tells whether there is anything behind the target.
    return err == ERROR_END_OF_STREAM ? static_cast<status_t>(OK) : err;
}

status_t Transcode::nextSample(PendingSample* sample) {
    sample->fromList = !mSampleList.empty();
    if (sample->fromList) {
        sample->trackIndex = mSampleList.begin()->mTrackIndex;
        return OK;
    }
    return mExtractor->getSampleTrackIndex(&sample->trackIndex);
}

void Transcode::readSample(PendingSample* sample) {
    if (sample->fromList) {
        const SampleData& data = *mSampleList.begin();
        const size_t size = std::min(data.mBuffer->size(), mSampleBuffer->capacity());
        memcpy(mSampleBuffer->base(), data.mBuffer->data(), size);
        mSampleBuffer->setRange(0, size);
        sample->timeUs = data.mTimeUs;
        return;
    }
    status_t err = mExtractor->readSampleData(mSampleBuffer);
    checkEqual(checks::kSampleRead, err, OK);
    err = mExtractor->getSampleTime(&sample->timeUs);
    checkEqual(checks::kSampleTime, err, OK);
    sp<MetaData> meta;
    err = mExtractor->getSampleMeta(&meta);
    checkEqual(checks::kSampleMeta, err, OK);
}

Transcode::ReaderState Transcode::queueSample(const PendingSample& sample) {
    CodecState& state = *mpTrack[sample.trackIndex].mCodecStatus;
    size_t index = 0;
    status_t err = state.mCodec->dequeueInputBuffer(&index, mDequeueTimeoutUs);
    if (err != OK) {
        if (mForceStop) {
            QM_LOGV(kTag, "Force stop : in EAGAIN case");
            return ReaderState::kEnded;
        }
        if (err != -EAGAIN) QM_LOGD(kTag, "need check this error");
        return ReaderState::kFeeding;
    }

    const sp<MediaCodecBuffer>& buffer = bufferAt(kTag, state.mInBuffers, index);
    if (mSampleBuffer->size() > buffer->capacity()) {
        // If the sample were skipped, an incomplete output would be reported as complete.
        QM_LOGE(kTag, "sample of %zu bytes does not fit the decoder's %zu", mSampleBuffer->size(),
                buffer->capacity());
        fail(kEncoderError);
        return ReaderState::kEnded;
    }
    buffer->setRange(0, mSampleBuffer->size());
    memcpy(buffer->data(), mSampleBuffer->data(), mSampleBuffer->size());
    err = state.mCodec->queueInputBuffer(index, 0, buffer->size(), sample.timeUs, 0, nullptr);

    if (!state.mIsAudio && mPTrimEnabled) {
        int64_t timeUs = sample.timeUs;
        if (adjustPresentationTimeUs(&timeUs)) mVideoSource->pushPresentationTime(timeUs);
    }
    if (err != OK) {
        QM_LOGV(kTag, "input abort by invalid state");
        // This thread ends here, so the decoder never gets an end of stream: the run must end.
        fail(kDecoderError);
        return ReaderState::kEnded;
    }
    consumeSample(sample);
    mPendingSample.reset();
    return ReaderState::kFeeding;
}

void Transcode::consumeSample(const PendingSample& sample) {
    if (sample.fromList) {
        mSampleList.erase(mSampleList.begin());
    } else {
        mExtractor->advance();
    }
}

void Transcode::printProgress(int64_t timeUs) {
    int64_t done = timeUs;
    int64_t whole = mFileAttribute.mDurationUs;
    if (isTrimming()) {
        const int64_t firstStartUs = mProperty->mPeriods[0].mStartUs;
        const int64_t lastEndUs = mProperty->mPeriods[mProperty->mPeriodCount - 1].mEndUs;
        // The margins of 1 ms and 2 ms keep the value below 100 % up to the end of the last period;
        // a sample 1 ms after it reaches 100 %.
        done = saturatingSub(saturatingAdd(timeUs, 1000), firstStartUs);
        whole = saturatingSub(saturatingAdd(lastEndUs, 2000), firstStartUs);
    }
    if (whole == 0) return;
    const auto progress = static_cast<int32_t>(saturatingAdd(
        mProgressOffset, saturatingDiv(saturatingMul(done, 100 - mProgressOffset), whole)));
    if (progress <= mLastProgress) return;
    mLastProgress = progress;
    reportProgress(progress);
}

// Called on the session's thread and on the input reader. On either one, an exception would leave
// the session's other threads running without an owner.
void Transcode::reportProgress(int32_t percent) const {
    try {
        mProperty->mProgressCallback(percent);
    } catch (...) {
        checkRule(kTag, "the progress callback threw an exception", false);
    }
}

bool Transcode::adjustPresentationTimeUs(int64_t* timeUs) {
    if (mCurrentPeriodIndex >= mProperty->mPeriodCount) return false;
    if (*timeUs >= mProperty->mPeriods[mCurrentPeriodIndex].mEndUs) {
        finishPeriod();
        if (mCurrentPeriodIndex >= mProperty->mPeriodCount) return false;
    }
    if (!isInCurrentPeriod(*timeUs)) return false;
    *timeUs = rebased(*timeUs);
    return true;
}

// The next period begins where this one ends in the output.
void Transcode::finishPeriod() {
    const TrimPeriod& period = mProperty->mPeriods[mCurrentPeriodIndex];
    mPeriodChanged = true;
    mPeriodOffsetUs = saturatingAdd(mPeriodOffsetUs, saturatingSub(period.mEndUs, period.mStartUs));
    mCurrentPeriodIndex = mCurrentPeriodIndex + 1;
}

// The output time of an input time in the current period.
int64_t Transcode::rebased(int64_t timeUs) const {
    const int64_t startUs = mProperty->mPeriods[mCurrentPeriodIndex].mStartUs;
    return saturatingAdd(mPeriodOffsetUs, saturatingSub(timeUs, startUs));
}

bool Transcode::isInCurrentPeriod(int64_t timeUs) const {
    const TrimPeriod& period = mProperty->mPeriods[mCurrentPeriodIndex];
    return period.mStartUs <= timeUs && timeUs < period.mEndUs;
}

int Transcode::verifyTrimInfo() {
    if (!mProperty->mTrimEnabled) return OK;
    if (!hasPeriods()) return kInvalidRequest;
    for (int32_t i = 0; i < mProperty->mPeriodCount; ++i) {
        const TrimPeriod& period = mProperty->mPeriods[i];
        if (period.mEndUs < period.mStartUs) {
            QM_LOGE(kTag, "invalid trim(%d) duration start(%lld)-end(%lld)", i,
                    wide(period.mStartUs), wide(period.mEndUs));
            return kInvalidRequest;
        }
        QM_LOGD(kTag, "(%d) period start(%lld) ~ end(%lld)", i, wide(period.mStartUs),
                wide(period.mEndUs));
    }
    mPeriodOffsetUs = 0;
    mCurrentPeriodIndex = 0;
    return OK;
}

int Transcode::makeSampleList(sp<QmMediaExtractorWrapper> extractor, List<SampleData>* list,
                              uint32_t bufferSize) {
    int audioCount = 0;
    int videoCount = 0;
    while (audioCount < kMaxAudioReadAhead && videoCount < kMaxVideoReadAhead) {
        size_t trackIndex = 0;
        const status_t err = extractor->getSampleTrackIndex(&trackIndex);
        if (trackIndex >= static_cast<size_t>(mTrackCount)) break;
        const Track& track = mpTrack[trackIndex];
        // Counted before `err` is checked, so that a failed call counts as a sample, too.
        if (track.mSelected) ++(track.mCodecStatus->mIsAudio ? audioCount : videoCount);
        if (err != OK) break;
        if (!track.mSelected) {
            extractor->advance();
            continue;
        }
        SampleData sample;
        sample.mTrackIndex = static_cast<uint32_t>(trackIndex);
        sample.mBuffer = new ABuffer(bufferSize);
        sample.mIsAudio = track.mCodecStatus->mIsAudio;
        extractor->readSampleData(sample.mBuffer);
        extractor->getSampleTime(&sample.mTimeUs);
        sp<MetaData> meta;
        if (extractor->getSampleMeta(&meta) != OK) break;
        readSampleMeta(*meta, &sample.mDurationUs, &sample.mIsSyncFrame);
        extractor->advance();
        list->push_back(sample);
    }
    return static_cast<int>(list->size());
}

}  // namespace qmmediaeditor
}  // namespace android
