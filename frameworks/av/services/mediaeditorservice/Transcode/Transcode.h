// One transcoding session, and the listener through which the writer reaches it.
#pragma once

#include <FatalChecks.h>
#include <RelaxedAtomic.h>
#include <TAudioSource.h>
#include <TVideoSource.h>
#include <TranscodeErrors.h>
#include <TranscodeTypes.h>
#include <WaitGroup.h>
#include <editorutils/QmMediaEditorUtils.h>
#include <editorutils/QmMediaExtractorWrapper.h>
#include <gui/Surface.h>
#include <media/IMediaRecorderClient.h>
#include <media/stagefright/MPEG4Writer.h>
#include <media/stagefright/MediaCodec.h>
#include <media/stagefright/MetaData.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <utils/List.h>
#include <utils/RefBase.h>
#include <utils/Vector.h>

#include <optional>

namespace android {
namespace qmmediaeditor {

class TranscodeListener;

class QM_EXPORT Transcode {
public:
    // The state of a selected track's decoder.
    struct CodecState {
        RelaxedAtomic<bool> mSawInputEOS{false};   // written by the input reader
        RelaxedAtomic<bool> mSawOutputEOS{false};  // written by the main loop
        uint64_t mDecodedFrameCount = 0;
        uint64_t mDecodedByteCount = 0;
        bool mIsAudio = false;
        sp<MediaCodec> mCodec;
        Vector<sp<MediaCodecBuffer>> mInBuffers;   // input reader, once it runs
        Vector<sp<MediaCodecBuffer>> mOutBuffers;  // main loop
    };

    struct Track {
        sp<AMessage> mFormat;
        CodecState* mCodecStatus = nullptr;  // owned; null for a track that is not decoded
        bool mSelected = false;
    };

    // One sample that was read ahead.
    struct SampleData {
        uint32_t mTrackIndex = 0;
        sp<ABuffer> mBuffer;  // its range is the sample
        int64_t mTimeUs = 0;
        int64_t mDurationUs = 0;
        int32_t mIsSyncFrame = 0;
        bool mIsAudio = false;
    };

    // `property` must outlive the session.
    Transcode(TranscodeProperty* property, const sp<Surface>& surface);
    virtual ~Transcode();

    // Opens writer and extractor, selects the tracks, creates their decoders and determines what to
    // encode. Once. 0, or what went wrong; in either case the host's output descriptor is closed
    // and TranscodeProperty::mOutputFd is -1.
    int32_t createModule();

    // Runs the whole transcoding on the calling thread. Once, after createModule(). 0, or a result
    // of a session (TranscodeErrors.h). After it has returned, no thread reads the input any more.
    int32_t doTranscode();

    // Raises the stop flag and returns. Any thread.
    int32_t forceStop();
    // As the writer's stopping events do. Any thread but those of the sources.
    int32_t stopByWriter();
    // The writer's events, on one of its threads.
    void notify(int msg, int ext1, int ext2);

private:
    static constexpr const char* kTag = "Transcode";

    // The input reader's next step.
    enum class ReaderState {
        kFeeding,        // moves samples into the decoders
        kSignallingEnd,  // tells the decoders the end of the input
        kEnded,
    };

    // The sample that the input reader is to queue, wherever it came from.
    struct PendingSample {
        size_t trackIndex = 0;
        int64_t timeUs = 0;
        bool fromList = false;
    };

    // Module creation and teardown.
    int32_t takeOutput();
    int32_t createExtractor(FileAttribute& file);
    void fail(int32_t result);
    void releaseTracks();
    void stopSources();

    // Track selection.
    int createTrack();
    int selectTrackAt(int32_t i);
    int createAudioDecoder(int32_t i, const AString& mime);
    int createVideoDecoder(int32_t i, const AString& mime);
    int makeDecoder(Track& track, const AString& mime, bool isAudio);
    void chooseDithering(AMessage* format);

    // Encoder configuration.
    int setEncoderInfo();
    int setAudioEncoderInfo(AudioAttribute* attribute, sp<AMessage> format, sp<AMessage> request,
                            bool onlyInput);
    int setVideoEncoderInfo(VideoAttribute* attribute, sp<AMessage> format, sp<AMessage> request,
                            bool onlyInput);
    void readAudioInput(AudioAttribute* attribute, const AMessage& format) const;
    void readVideoInput(VideoAttribute* attribute, const AMessage& format) const;
    void chooseVideoBitrate(VideoAttribute* attribute, const AMessage& format) const;
    void chooseFrameBufferSize(VideoAttribute* attribute) const;
    void chooseProfileAndLevel(VideoAttribute* attribute, const AMessage& format,
                               bool requested) const;
    int checkPTrimPolicy(sp<AMessage> fileFormat, sp<AMessage> videoFormat, AudioAttribute* audio,
                         VideoAttribute* video);
    static int findAVCVideoProfile(unsigned char* csd, int* profile, int* level);

    // Main loop.
    int32_t createSource();
    void startDecoders();
    void wireWriter();
    void copyUuidData();
    int32_t runLoop();
    bool allTracksEnded() const;
    int32_t sourceFailure() const;
    void pushEndMarkers(const char* message);
    void releaseDecoders();
    void awaitWriter();
    int32_t finish(int32_t lastDecodeResult);

    // Input reader.
    void startInputPortThread();
    static void* inputThreadWrapper(void* self);
    int inputThreadEntry();
    ReaderState signalInputEOS();
    ReaderState feedDecoder();
    status_t seekIfNeeded();
    status_t nextSample(PendingSample* sample);
    void readSample(PendingSample* sample);
    ReaderState queueSample(const PendingSample& sample);
    void consumeSample(const PendingSample& sample);
    void printProgress(int64_t timeUs);
    void reportProgress(int32_t percent) const;
    bool adjustPresentationTimeUs(int64_t* timeUs);
    void finishPeriod();
    int64_t rebased(int64_t timeUs) const;
    bool isInCurrentPeriod(int64_t timeUs) const;
    int verifyTrimInfo();
    int makeSampleList(sp<QmMediaExtractorWrapper> extractor, List<SampleData>* list,
                       uint32_t bufferSize);
    bool hasPeriods() const {
        return mProperty->mPeriodCount >= 1 && mProperty->mPeriods != nullptr;
    }
    bool isTrimming() const { return mProperty->mTrimEnabled && hasPeriods(); }

    // Decoder drain.
    status_t runDecoder(List<TDecodedSample>* list, int trackIndex, int64_t timeoutUs);
    status_t handleDecodedFrame(Track& track, TDecodedSample* sample, List<TDecodedSample>* list);
    status_t handleFormatChange(CodecState* state);
    bool adjustPresentationTimeUs(TDecodedSample* sample);
    status_t copyDecodedBufferNEncoder(Track& track, List<TDecodedSample>* list);
    status_t setDecoderOutputFormat(bool isAudio, sp<AMessage> format);

    Track* mpTrack = nullptr;
    int32_t mTrackCount = 0;
    sp<TAudioSource> mAudioSource;
    AudioAttribute mAudioAttribute;
    sp<TVideoSource> mVideoSource;
    VideoAttribute mVideoAttribute;
    int32_t mVideoTrackIndex = -1;
    TranscodeProperty* mProperty;
    sp<QmMediaExtractorWrapper> mExtractor;  // the input reader's, once it runs
    // The main loop and the input reader both work through the periods.
    RelaxedAtomic<int32_t> mCurrentPeriodIndex{-1};
    RelaxedAtomic<int64_t> mPeriodOffsetUs{0};
    RelaxedAtomic<bool> mPeriodChanged{true};
    bool mPTrimEnabled = false;
    bool mUnusedFlag = true;
    bool mAcceptAudioFormatChange = true;
    List<SampleData> mSampleList;               // input reader
    RelaxedAtomic<bool> mOutputStopped{false};  // main loop
    RelaxedAtomic<bool> mForceStop{false};      // written by any thread, polled by all
    // The failure that has set mForceStop; written by the session's thread and the input reader.
    RelaxedAtomic<int32_t> mFailure{OK};
    FileAttribute mFileAttribute;
    sp<ALooper> mVideoDecoderLooper;
    sp<ALooper> mAudioDecoderLooper;
    sp<Surface> mSurface;
    int64_t mDequeueTimeoutUs = 500;
    // Held while a decoded sample is pushed, which may block: nothing that makes room may take it.
    Mutex mLock;
    sp<MPEG4Writer> mMP4Writer;
    sp<AMessage> mOutputFormat;
    sp<MetaData> mFileMeta;
    RelaxedAtomic<bool> mNeedtoSeek{
        false};                            // published by the main loop, taken by the input reader
    RelaxedAtomic<int64_t> mSeekTime{-1};  // written before mNeedtoSeek
    QmMediaEditorUtils* mUtils;
    pthread_t mInputThread = 0;
    int32_t mUnusedWord = 0;
    size_t mSampleBufferSize = 0;
    sp<ABuffer> mSampleBuffer;  // the input reader's, once it runs
    // Read into mSampleBuffer, and waiting for an input buffer of its decoder. Input reader only.
    std::optional<PendingSample> mPendingSample;
    sp<TranscodeListener> mListener;
    int32_t mLastProgress = 0;  // input reader
    int32_t mProgressOffset;
    WaitGroup mInputPort;
};

// Passes the writer's events on to the session, which owns it.
class TranscodeListener : public IMediaRecorderClient {
public:
    explicit TranscodeListener(Transcode* transcode) : mTranscode(transcode) {}

    void notify(int msg, int ext1, int ext2) override;

protected:
    ~TranscodeListener() override;
    IBinder* onAsBinder() override;

private:
    Transcode* mTranscode;
};

}  // namespace qmmediaeditor
}  // namespace android
