// Construction, module creation, teardown and the ways to stop a session.
#include <Log.h>
#include <Transcode.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace android {
namespace qmmediaeditor {

namespace {

// How long a stopping event of the writer waits before it stops the session.
constexpr useconds_t kWriterEventDelayUs = 50000;

int32_t validProgressOffset(uint32_t requested) {
    return requested > 100 ? 0 : static_cast<int32_t>(requested);
}

// An error stops the session, and so does reaching a limit: the codes for the maximum size and the
// maximum duration differ in their lowest bit.
bool isStoppingEvent(int msg, int ext1) {
    return msg == MEDIA_RECORDER_EVENT_ERROR ||
           (msg == MEDIA_RECORDER_EVENT_INFO &&
            (ext1 | 1) == MEDIA_RECORDER_INFO_MAX_FILESIZE_REACHED);
}

// Null when the writer can use the descriptor, else the reason why it cannot. The writer goes back
// in the file, so the file must be seekable and must not be in append mode.
const char* outputFault(int outputFd, int flags, int inputFd) {
    if ((flags & O_ACCMODE) == O_RDONLY) return "it is not open for writing";
    struct stat output {};
    if (fstat(outputFd, &output) != 0) return "its file cannot be looked up";
    if (!S_ISREG(output.st_mode)) return "it is not a regular file";
    if ((flags & O_APPEND) != 0) return "it is in append mode";
    struct stat input {};
    if (fstat(inputFd, &input) == 0 && input.st_dev == output.st_dev &&
        input.st_ino == output.st_ino) {
        return "it is the input";
    }
    return nullptr;
}

}  // namespace

Transcode::Transcode(TranscodeProperty* property, const sp<Surface>& surface)
    : mProperty(property), mSurface(surface) {
    QM_LOGV(kTag, "Constructor Transcode start");
    mListener = new TranscodeListener(this);
    mOutputFormat = mProperty->mOutputFormat;
    mUtils = new QmMediaEditorUtils;
    mProgressOffset = validProgressOffset(mProperty->mProgressOffset);
    QM_LOGV(kTag, "Constructor Transcode end [progressOffset:%d]", mProgressOffset);
}

// The writer goes first: it holds the sources, and its threads read from them.
Transcode::~Transcode() {
    QM_LOGV(kTag, "Decontructor ~Transcode start");
    mMP4Writer.clear();
    mFileMeta.clear();
    if (mpTrack != nullptr) releaseTracks();
    delete mUtils;
    mUtils = nullptr;
    QM_LOGV(kTag, "Decontructor ~Transcode end");
}

// Decoders, then the sources, then the loopers that the decoders worked on.
void Transcode::releaseTracks() {
    for (int32_t i = 0; i < mTrackCount; ++i) {
        Track& track = mpTrack[i];
        if (!track.mSelected || track.mCodecStatus == nullptr) continue;
        if (track.mCodecStatus->mCodec != nullptr) {
            // After a run the main loop has released the decoder. A second release has no effect.
            track.mCodecStatus->mCodec->stop();
            track.mCodecStatus->mCodec->release();
        }
        delete track.mCodecStatus;
        track.mCodecStatus = nullptr;
    }
    if (mFileAttribute.mHasAudio && mAudioSource != nullptr) {
        mAudioSource->stopThread();
        mAudioSource.clear();
    }
    if (mFileAttribute.mHasVideo && mVideoSource != nullptr) {
        mVideoSource->stopThread();
        mVideoSource.clear();
    }
    if (mFileAttribute.mHasAudio && mAudioDecoderLooper != nullptr) {
        mAudioDecoderLooper->stop();
        mAudioDecoderLooper.clear();
    }
    if (mFileAttribute.mHasVideo && mVideoDecoderLooper != nullptr) {
        mVideoDecoderLooper->stop();
        mVideoDecoderLooper.clear();
    }
    delete[] mpTrack;
    mpTrack = nullptr;
}

int32_t Transcode::createModule() {
    if (takeOutput() != OK) return kInvalidRequest;
    mFileMeta = new MetaData;

    mFileAttribute.mHasAudio = 0;
    mFileAttribute.mHasVideo = 0;
    mFileAttribute.mFileSize = lseek64(mProperty->mInputFd, 0, SEEK_END);
    QM_LOGV(kTag, "Input file(FD[%d] size : [%lld]", mProperty->mInputFd,
            wide(mFileAttribute.mFileSize));
    if (mFileAttribute.mFileSize <= 0) {
        QM_LOGE(kTag, "input file one size is zero");
        return kInvalidRequest;
    }
    if (createExtractor(mFileAttribute) != OK) return kInvalidRequest;
    const int err = createTrack();
    if (err != OK) return err;
    setEncoderInfo();
    if (mTrackCount == 0) {
        QM_LOGE(kTag, "Track is not exist");
        return kInvalidRequest;
    }
    return OK;
}

// The writer duplicates the host's descriptor, which is then closed in every case. The property
// forgets its number, because the next file that is opened may get the same one.
int32_t Transcode::takeOutput() {
    const int fd = mProperty->mOutputFd;
    mProperty->mOutputFd = -1;
    const int flags = fcntl(fd, F_GETFL);
    const char* fault = flags < 0 ? "it is not open" : outputFault(fd, flags, mProperty->mInputFd);
    if (fault == nullptr) {
        mMP4Writer = new MPEG4Writer(fd);
    } else {
        QM_LOGE(kTag, "output descriptor %d cannot be used: %s", fd, fault);
    }
    // A descriptor that was not open is not closed: another thread may have opened a file under
    // that number since. One that is the input as well stays open, because the host closes its
    // input.
    if (flags >= 0 && fd != mProperty->mInputFd) close(fd);
    return fault == nullptr ? static_cast<int32_t>(OK) : kInvalidRequest;
}

int32_t Transcode::createExtractor(FileAttribute& file) {
    QM_LOGV(kTag, "create Extractor");
    mExtractor = new QmMediaExtractorWrapper;
    if (mExtractor->setDataSource(mProperty->mInputFd, 0, file.mFileSize) != OK) {
        QM_LOGE(kTag, "unable to instantiate extractor.");
        return kSessionFailed;
    }
    return OK;
}

int32_t Transcode::forceStop() {
    QM_LOGV(kTag, "Call force Stop");
    mForceStop = true;
    return OK;
}

// A failure that nobody asked for ends the run as forceStop() does: with the file closed. The first
// one is the result; one that follows a stop is not.
void Transcode::fail(int32_t result) {
    if (!mForceStop.exchange(true)) mFailure = result;
}

void Transcode::notify(int msg, int ext1, int ext2) {
    QM_LOGD(kTag, "MPEG4Writer notify %d, %d, %d", msg, ext1, ext2);
    if (!isStoppingEvent(msg, ext1)) return;
    usleep(kWriterEventDelayUs);
    stopByWriter();
}

int32_t Transcode::stopByWriter() {
    QM_LOGV(kTag, "stop by writer");
    if (mForceStop.exchange(true)) return OK;
    // The writer sends events only after both sources exist.
    stopSources();
    return OK;
}

void Transcode::stopSources() {
    if (mFileAttribute.mHasAudio) mAudioSource->setCodecStopped();
    if (mFileAttribute.mHasVideo) mVideoSource->setCodecStopped();
}

}  // namespace qmmediaeditor
}  // namespace android
