#include <faults/FaultPlatform.h>

#include <atomic>
#include <utility>

namespace android::qmmediaeditor {

namespace {

typedef FaultScript::Part Part;
typedef FaultScript::What What;
typedef std::shared_ptr<FaultClock> ClockPtr;

class FaultCodec final : public MediaCodec {
public:
    FaultCodec(const sp<MediaCodec>& real, const FaultScript& script, ClockPtr clock)
        : mReal(real), mScript(script), mClock(std::move(clock)) {}

    status_t configure(const sp<AMessage>& format, const sp<Surface>& nativeWindow,
                       const sp<ICrypto>& crypto, uint32_t flags) override {
        if (mScript.what == What::kNotConfigured) return fail();
        return mReal->configure(format, nativeWindow, crypto, flags);
    }

    status_t start() override {
        return mScript.what == What::kNotStarted ? fail() : mReal->start();
    }

    status_t stop() override {
        endStall();
        return mReal->stop();
    }

    status_t release() override {
        endStall();
        return mReal->release();
    }

    status_t dequeueInputBuffer(size_t* index, int64_t timeoutUs) override {
        return mReal->dequeueInputBuffer(index, timeoutUs);
    }

    status_t queueInputBuffer(size_t index, size_t offset, size_t size, int64_t timeUs,
                              uint32_t flags, AString* detail) override {
        if (mScript.what == What::kInputFails && mInputs++ >= mScript.at) return fail();
        return mReal->queueInputBuffer(index, offset, size, timeUs, flags, detail);
    }

    // One thread takes a codec's output.
    status_t dequeueOutputBuffer(size_t* index, size_t* offset, size_t* size, int64_t* timeUs,
                                 uint32_t* flags, int64_t timeoutUs) override {
        if (mOutputs >= mScript.at) {
            if (mScript.what == What::kOutputFails) return fail();
            if (mScript.what == What::kStalls) return stall(timeoutUs);
            if (mOwesFormat) {
                mOwesFormat = false;
                mClock->strike();
                return INFO_FORMAT_CHANGED;
            }
        }
        const status_t result =
            mReal->dequeueOutputBuffer(index, offset, size, timeUs, flags, timeoutUs);
        if (result == OK) ++mOutputs;
        if (result != INFO_FORMAT_CHANGED) return result;
        mOwesFormat = mScript.what == What::kFormatLate || mScript.what == What::kFormatAgain;
        return mScript.what == What::kFormatLate ? -EAGAIN : result;
    }

    status_t releaseOutputBuffer(size_t index) override {
        return mReal->releaseOutputBuffer(index);
    }
    status_t signalEndOfInputStream() override { return mReal->signalEndOfInputStream(); }
    status_t getOutputFormat(sp<AMessage>* format) const override {
        return mReal->getOutputFormat(format);
    }
    status_t getInputBuffers(Vector<sp<MediaCodecBuffer>>* buffers) const override {
        return mReal->getInputBuffers(buffers);
    }
    status_t getOutputBuffers(Vector<sp<MediaCodecBuffer>>* buffers) const override {
        return mReal->getOutputBuffers(buffers);
    }

private:
    status_t fail() {
        mClock->strike();
        return UNKNOWN_ERROR;
    }

    status_t stall(int64_t timeoutUs) {
        mClock->strike();
        std::unique_lock<std::mutex> lock(mLock);
        mStallEnds.wait_for(lock, std::chrono::microseconds(timeoutUs), [this] { return mEnded; });
        return mEnded ? INVALID_OPERATION : -EAGAIN;
    }

    void endStall() {
        std::lock_guard<std::mutex> lock(mLock);
        mEnded = true;
        mStallEnds.notify_all();
    }

    const sp<MediaCodec> mReal;
    const FaultScript mScript;
    const ClockPtr mClock;
    std::atomic<uint64_t> mInputs{0};
    uint64_t mOutputs = 0;
    bool mOwesFormat = false;
    std::mutex mLock;
    std::condition_variable mStallEnds;
    bool mEnded = false;
};

class FaultExtractor final : public ExtractorBackend {
public:
    FaultExtractor(const sp<ExtractorBackend>& real, const FaultScript& script, ClockPtr clock)
        : mReal(real),
          mSamplesLeft(script.at),
          mResult(script.what == What::kReadFails ? ERROR_IO : ERROR_END_OF_STREAM),
          mClock(std::move(clock)) {}

    status_t setDataSource(int fd, int64_t offset, int64_t length) override {
        return mReal->setDataSource(fd, offset, length);
    }
    size_t countTracks() override { return mReal->countTracks(); }
    status_t getTrackFormat(size_t index, sp<AMessage>* format) override {
        return mReal->getTrackFormat(index, format);
    }
    status_t getFileFormat(sp<AMessage>* format) override { return mReal->getFileFormat(format); }
    status_t selectTrack(size_t index) override { return mReal->selectTrack(index); }
    status_t getSampleTrackIndex(size_t* index) override {
        if (mSamplesLeft > 0) return mReal->getSampleTrackIndex(index);
        mClock->strike();
        return mResult;
    }
    status_t readSampleData(const sp<ABuffer>& buffer) override {
        return mReal->readSampleData(buffer);
    }
    status_t getSampleTime(int64_t* timeUs) override { return mReal->getSampleTime(timeUs); }
    status_t getSampleMeta(sp<MetaData>* meta) override { return mReal->getSampleMeta(meta); }
    status_t advance() override {
        --mSamplesLeft;
        return mReal->advance();
    }
    status_t seekTo(int64_t timeUs, SeekMode mode) override { return mReal->seekTo(timeUs, mode); }

private:
    const sp<ExtractorBackend> mReal;
    uint64_t mSamplesLeft;
    const status_t mResult;
    const ClockPtr mClock;
};

// The fault happens on the thread of the track that reads.
class FaultSource final : public MediaSource {
public:
    FaultSource(const sp<MediaSource>& real, std::function<status_t()> beforeRead)
        : mReal(real), mBeforeRead(std::move(beforeRead)) {}

    status_t start(MetaData* params) override { return mReal->start(params); }
    status_t stop() override { return mReal->stop(); }
    sp<MetaData> getFormat() override { return mReal->getFormat(); }
    status_t read(MediaBufferBase** buffer, const ReadOptions* options) override {
        const status_t err = mBeforeRead();
        return err == OK ? mReal->read(buffer, options) : err;
    }

private:
    const sp<MediaSource> mReal;
    const std::function<status_t()> mBeforeRead;
};

class FaultWriter final : public MediaWriter {
public:
    FaultWriter(const sp<MediaWriter>& writer, const FaultScript& script, ClockPtr clock)
        : real(writer), mScript(script), mClock(std::move(clock)) {}

    status_t addSource(const sp<MediaSource>& source) override {
        return real->addSource(new FaultSource(source, [this]() -> status_t {
            if (mReads++ != mScript.at) return OK;
            mClock->strike();
            if (mScript.what == What::kReadFails) return NO_MEMORY;
            mListener->notify(mScript.message, mScript.detail, 0);
            return OK;
        }));
    }
    status_t start(MetaData* params) override { return real->start(params); }
    bool reachedEOS() override { return real->reachedEOS(); }
    status_t stop() override { return real->stop(); }
    status_t pause() override { return real->pause(); }
    void setListener(const sp<IMediaRecorderClient>& listener) override {
        MediaWriter::setListener(listener);
        real->setListener(listener);
    }

    const sp<MediaWriter> real;

private:
    const FaultScript mScript;
    const ClockPtr mClock;
    std::atomic<uint64_t> mReads{0};
};

Part codecPart(const AString& mime, bool encoder) {
    const bool audio = mime.startsWith("audio/");
    if (encoder) return audio ? Part::kAudioEncoder : Part::kVideoEncoder;
    return audio ? Part::kAudioDecoder : Part::kVideoDecoder;
}

}  // namespace

void FaultClock::strike() {
    std::lock_guard<std::mutex> lock(mLock);
    if (mHasStruck) return;
    mHasStruck = true;
    mAt = std::chrono::steady_clock::now();
    mStruck.notify_all();
}

bool FaultClock::waitFor(std::chrono::seconds bound) {
    std::unique_lock<std::mutex> lock(mLock);
    return mStruck.wait_for(lock, bound, [this] { return mHasStruck; });
}

FaultClock::TimePoint FaultClock::at() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mAt;
}

std::shared_ptr<FaultClock> FaultPlatform::setScript(const FaultScript& script) {
    mScript = script;
    mClock = std::make_shared<FaultClock>();
    return mClock;
}

sp<MediaCodec> FaultPlatform::createCodec(const sp<ALooper>& looper, const AString& mime,
                                          bool encoder, status_t* err) {
    if (!concerns(codecPart(mime, encoder))) return mReal->createCodec(looper, mime, encoder, err);
    if (mScript.what == What::kNotCreated) {
        mClock->strike();
        if (err != nullptr) *err = NAME_NOT_FOUND;
        return nullptr;
    }
    const sp<MediaCodec> real = mReal->createCodec(looper, mime, encoder, err);
    return real == nullptr ? nullptr : new FaultCodec(real, mScript, mClock);
}

sp<ExtractorBackend> FaultPlatform::createExtractor() {
    const sp<ExtractorBackend> real = mReal->createExtractor();
    if (!concerns(Part::kExtractor)) return real;
    return new FaultExtractor(real, mScript, mClock);
}

sp<MediaWriter> FaultPlatform::createWriter(int fd) {
    const sp<MediaWriter> real = mReal->createWriter(fd);
    return concerns(Part::kWriter) ? new FaultWriter(real, mScript, mClock) : real;
}

sp<AudioConverterBackend> FaultPlatform::createAudioConverter() {
    return mReal->createAudioConverter();
}

void FaultPlatform::setUuidData(const sp<MediaWriter>& writer, const unsigned char* data,
                                int size) {
    auto* wrapper = dynamic_cast<FaultWriter*>(writer.get());
    mReal->setUuidData(wrapper == nullptr ? writer : wrapper->real, data, size);
}

}  // namespace android::qmmediaeditor
