// The one seam between the component and what it runs on.
//
// The component uses the platform's own classes. Those of them that hold something real (codecs,
// the extractor, the writer, the converters) get it from the session's Platform: the host, the host
// with faults injected, or a scripted platform. A device has one platform; there, these classes are
// the real ones, and Platform is an empty class with the static operations below.
#pragma once

#include <editorutils/QmMediaEditorColorUtils.h>
#include <editorutils/QmMediaExtractorWrapper.h>
#include <media/stagefright/MediaCodec.h>
#include <media/stagefright/MediaWriter.h>

#include <memory>

namespace android {
namespace qmmediaeditor {

// Behind QmMediaExtractorWrapper, operation by operation.
class ExtractorBackend : public RefBase {
public:
    typedef QmMediaExtractorWrapper::SeekMode SeekMode;

    virtual status_t setDataSource(int fd, int64_t offset, int64_t length) = 0;
    virtual size_t countTracks() = 0;
    virtual status_t getTrackFormat(size_t index, sp<AMessage>* format) = 0;
    virtual status_t getFileFormat(sp<AMessage>* format) = 0;
    virtual status_t selectTrack(size_t index) = 0;
    virtual status_t getSampleTrackIndex(size_t* trackIndex) = 0;
    virtual status_t readSampleData(const sp<ABuffer>& buffer) = 0;
    virtual status_t getSampleTime(int64_t* timeUs) = 0;
    virtual status_t getSampleMeta(sp<MetaData>* meta) = 0;
    virtual status_t advance() = 0;
    virtual status_t seekTo(int64_t timeUs, SeekMode mode) = 0;
};

// Behind QmMediaAudioConverter, operation by operation.
class AudioConverterBackend : public RefBase {
public:
    virtual int init(int inChannelCount, int inSampleRate, int inBitDepth, int outChannelCount,
                     int outSampleRate, int outBitDepth) = 0;
    virtual unsigned char* allocateBuff(unsigned char* base, int frames, float ratio) = 0;
    virtual int process(unsigned char* in, unsigned char* out, int frames) = 0;
    virtual void freeBuff(unsigned char* buffer) = 0;
};

// The arguments of QmMediaEditorColorConverter::Scale, which says what they mean.
struct ScaleRequest {
    int srcStride;
    int srcSliceHeight;
    int srcWidth;
    int srcHeight;
    int srcColorFormat;
    const unsigned char* src;
    int dstWidth;
    int dstHeight;
    int dstColorFormat;
    unsigned char* dst;
    sp<QmMediaEditorColorUtils> utils;
};

// Factory operations. Any thread may call them, and several sessions may share one object.
class Platform {
public:
    virtual ~Platform() = default;

    // Makes `platform` that of the sessions which are created without one, in the whole process.
    // Sessions that exist keep theirs. Null removes it.
    static void install(std::shared_ptr<Platform> platform);
    // The platform of a session that is created now: `platform`, or the installed one where that is
    // null. Null if there is neither.
    static std::shared_ptr<Platform> forNewSession(std::shared_ptr<Platform> platform);
    // The platform of the session that the calling thread runs, else the installed one. Aborts the
    // process with "no platform is installed" if there is neither.
    static std::shared_ptr<Platform> current();

    // While it exists, `platform` is the calling thread's. A null one changes nothing.
    class Scope {
    public:
        explicit Scope(const std::shared_ptr<Platform>& platform);
        ~Scope();

    private:
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

        const std::shared_ptr<Platform> mBefore;
    };

    // Makes the parts of one session, where they share state. Null: the object itself.
    virtual std::shared_ptr<Platform> createSession() { return nullptr; }

    virtual sp<MediaCodec> createCodec(const sp<ALooper>& looper, const AString& mime, bool encoder,
                                       status_t* err) = 0;
    virtual sp<ExtractorBackend> createExtractor() = 0;
    virtual sp<MediaWriter> createWriter(int fd) = 0;
    virtual sp<AudioConverterBackend> createAudioConverter() = 0;
    virtual void scale(const ScaleRequest& request) = 0;
    // `writer` is one that createWriter made.
    virtual void setUuidData(const sp<MediaWriter>& writer, const unsigned char* data,
                             int size) = 0;
    virtual bool getUseDitherType(int* type) = 0;
};

}  // namespace qmmediaeditor
}  // namespace android
