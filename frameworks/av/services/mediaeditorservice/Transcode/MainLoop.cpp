// A run: starts everything, drives the decoders' output until the end or a stop, and closes the
// file.
#include <Log.h>
#include <Transcode.h>
#include <editorutils/Adapter.h>
#include <unistd.h>

namespace android {
namespace qmmediaeditor {

namespace {

constexpr int64_t kDecoderOutputTimeoutUs = 500;
constexpr useconds_t kWriterPollUs = 100000;

}  // namespace

int32_t Transcode::doTranscode() {
    QM_LOGV(kTag, "doTranscode Start");
    if (verifyTrimInfo() != OK) return kInvalidRequest;
    if (mForceStop) {
        QM_LOGV(kTag, "Force stop before decoder start");
        return kStopped;
    }
    const int64_t startTimeUs = ALooper::GetNowUs();
    startDecoders();
    if (mForceStop) {
        QM_LOGV(kTag, "Force stop before sniff frame");
        return kStopped;
    }
    // The cast loses nothing: no input buffer is larger than 2 GiB.
    QM_LOGD(kTag, "mSampleBufferSize: %d", static_cast<int>(mSampleBufferSize));
    mSampleBuffer = new ABuffer(mSampleBufferSize);

    if (createSource() != OK) return mForceStop ? kStopped : kSessionFailed;
    if (mForceStop) {
        QM_LOGV(kTag, "force Stop before transcode loop");
        if (mFileAttribute.mHasAudio && mAudioSource != nullptr) mAudioSource->stop();
        if (mFileAttribute.mHasVideo && mVideoSource != nullptr) mVideoSource->stop();
        QM_LOGV(kTag, "doTranscode End BY Force Stop");
        return kStopped;
    }

    // Before the writer starts, so that there is no half-made file.
    checkRule(kTag, "the progress callback is empty", mProperty->mProgressCallback != nullptr);
    wireWriter();
    copyUuidData();
    reportProgress(mProgressOffset);

    QM_LOGV(kTag, "Start loop");
    mSeekTime = 0;
    mNeedtoSeek = true;
    startInputPortThread();
    const int32_t lastDecodeResult = runLoop();
    QM_LOGV(kTag, "doTranscode Loop exit %lld", wide(ALooper::GetNowUs() - startTimeUs));
    return finish(lastDecodeResult);
}

void Transcode::startDecoders() {
    for (int32_t i = 0; i < mTrackCount; ++i) {
        if (!mpTrack[i].mSelected) continue;
        CodecState& state = *mpTrack[i].mCodecStatus;
        checkEqual(checks::kDecoderStarted, state.mCodec->start(), OK);
        checkEqual(checks::kDecoderInputs, state.mCodec->getInputBuffers(&state.mInBuffers), OK);
        checkEqual(checks::kDecoderOutputs, state.mCodec->getOutputBuffers(&state.mOutBuffers), OK);
        QM_LOGV(kTag, "got %zu input and %zu output buffers", state.mInBuffers.size(),
                state.mOutBuffers.size());
        // One buffer serves every track, so it holds what the largest input buffer holds.
        const size_t capacity = bufferAt(kTag, state.mInBuffers, 0)->capacity();
        if (capacity > mSampleBufferSize) mSampleBufferSize = capacity;
    }
}

int32_t Transcode::createSource() {
    QM_LOGV(kTag, "createSource start");
    if (mForceStop) {
        QM_LOGV(kTag, "Force Stop in createSource");
        return kStopped;
    }
    const auto stopTest = [this] { return mForceStop || sourceFailure() != OK; };
    if (mFileAttribute.mHasAudio) {
        mAudioSource = new TAudioSource(mAudioAttribute);
        mAudioSource->setStopTest(stopTest);
        if (!mAudioSource->isValid()) {
            QM_LOGE(kTag, "TAudioSource error");
            return kNoResource;
        }
    }
    if (mFileAttribute.mHasVideo) {
        mVideoSource = new TVideoSource(mVideoAttribute);
        mVideoSource->setStopTest(stopTest);
        if (!mVideoSource->isValid()) {
            QM_LOGE(kTag, "TVideoSource error");
            if (mAudioSource != nullptr && mAudioSource->isValid()) mAudioSource->stop();
            return kNoResource;
        }
    }
    QM_LOGV(kTag, "createSource end");
    return OK;
}

// The video track comes first in the file.
void Transcode::wireWriter() {
    if (mFileAttribute.mHasVideo) mMP4Writer->addSource(mVideoSource);
    if (mFileAttribute.mHasAudio) mMP4Writer->addSource(mAudioSource);
    mMP4Writer->setListener(mListener);
    mFileMeta->setInt32(kKeyRealTimeRecording, 0);
    checkEqual(checks::kWriterStarted, OK, mMP4Writer->start(mFileMeta.get()));
}

void Transcode::copyUuidData() {
    sp<AMessage> fileFormat;
    if (mExtractor->getFileFormat(&fileFormat) != OK) return;
    sp<ABuffer> uuidData;
    if (fileFormat->findBuffer("uuid-data", &uuidData) && uuidData != nullptr &&
        uuidData->size() != 0) {
        QM_LOGV(kTag, "Get uuid-data:[%zu]", uuidData->size());
        Adapter::SetUuidData(mMP4Writer, uuidData->data(), static_cast<int>(uuidData->size()));
    } else {
        QM_LOGV(kTag, "This file meta has not uuid data");
    }
}

// Returns what the last call of runDecoder() returned.
int32_t Transcode::runLoop() {
    List<TDecodedSample> decodedList;
    int32_t result = OK;
    while (!mOutputStopped) {
        if (mForceStop) {
            pushEndMarkers("force stop in output");
            return result;
        }
        if (allTracksEnded()) {
            QM_LOGV(kTag, "Audio/Video CodecSource stop");
            mOutputStopped = true;
            return result;
        }
        for (int32_t i = 0; i < mTrackCount; ++i) {
            if (!mpTrack[i].mSelected) continue;
            result = runDecoder(&decodedList, i, kDecoderOutputTimeoutUs);
            // A source records that its encoder failed in the middle of the run, or that a thread
            // could not be created. runDecoder() sees only that an encoder could not be created.
            int32_t failure = sourceFailure();
            if (failure == OK && result == kEncoderError) failure = kEncoderError;
            if (failure != OK) {
                QM_LOGD(kTag, "encoder error");
                fail(failure);
            }
            if (mForceStop) {
                pushEndMarkers("force stop in output2");
                return result;
            }
        }
    }
    return result;
}

bool Transcode::allTracksEnded() const {
    for (int32_t i = 0; i < mTrackCount; ++i) {
        if (mpTrack[i].mSelected && !mpTrack[i].mCodecStatus->mSawOutputEOS) return false;
    }
    return true;
}

int32_t Transcode::sourceFailure() const {
    const int32_t failure = mAudioSource == nullptr ? OK : mAudioSource->failure();
    if (failure != OK || mVideoSource == nullptr) return failure;
    return mVideoSource->failure();
}

// The end markers stop both sources at once. Samples that still wait for an encoder are not
// encoded.
void Transcode::pushEndMarkers(const char* message) {
    TDecodedSample marker;
    marker.mFlags = MediaCodec::BUFFER_FLAG_EOS;
    if (mFileAttribute.mHasAudio) mAudioSource->pushDecodedBuffer(marker, true);
    if (mFileAttribute.mHasVideo) mVideoSource->pushDecodedBuffer(marker, true);
    mOutputStopped = true;
    QM_LOGD(kTag, "%s", message);
}

void Transcode::releaseDecoders() {
    for (int32_t i = 0; i < mTrackCount; ++i) {
        if (!mpTrack[i].mSelected) continue;
        CodecState* state = mpTrack[i].mCodecStatus;
        checkEqual(checks::kDecoderReleased, OK, state->mCodec->release());
    }
}

// The writer's tracks end with the sources. After a stop or a failure the sources end with what
// they have, because an encoder that stalls would keep the file open for ever.
void Transcode::awaitWriter() {
    bool stopped = false;
    while (!mMP4Writer->reachedEOS()) {
        if (const int32_t failure = sourceFailure(); failure != OK) fail(failure);
        if (mForceStop && !stopped) {
            stopSources();
            stopped = true;
        }
        usleep(kWriterPollUs);
    }
}

int32_t Transcode::finish(int32_t lastDecodeResult) {
    // The input reader may be about to queue an input buffer, which a released decoder would
    // refuse.
    mInputPort.waitIdle();
    releaseDecoders();

    QM_LOGV(kTag, "wait writer EOS");
    awaitWriter();
    QM_LOGV(kTag, "call writer stop");
    const status_t err = mMP4Writer->stop();
    QM_LOGV(kTag, "doTranscode End");

    // An encoder may also fail after the main loop, on samples that were still queued.
    if (const int32_t failure = sourceFailure(); failure != OK) fail(failure);
    if (mFailure != OK) return mFailure;
    if (mForceStop) return lastDecodeResult == kEncoderError ? kEncoderError : kStopped;
    if (err != OK) {
        QM_LOGD(kTag, "MPEG4Writer stop result: %d", err);
        return kSessionFailed;
    }
    return OK;
}

}  // namespace qmmediaeditor
}  // namespace android
