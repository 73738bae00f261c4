// The platform's classes that forward their operations to the session's Platform.
#include <Platform.h>
#include <android/log.h>
#include <editorutils/Adapter.h>
#include <editorutils/QmMediaAudioConverter.h>
#include <editorutils/QmMediaEditorColorConverter.h>
#include <media/stagefright/MPEG4Writer.h>
#include <utils/Mutex.h>

#include <utility>

namespace android {

namespace qmmediaeditor {

namespace {

// Never destroyed, because threads may end after the static objects of the process.
struct Installed {
    Mutex lock;
    std::shared_ptr<Platform> platform GUARDED_BY(lock);
};
Installed& installed() {
    static auto& object = *new Installed;
    return object;
}

thread_local std::shared_ptr<Platform> tPlatform;

}  // namespace

void Platform::install(std::shared_ptr<Platform> platform) {
    // The one before may be destroyed without the lock.
    Mutex::Autolock lock(installed().lock);
    installed().platform.swap(platform);
}

std::shared_ptr<Platform> Platform::forNewSession(std::shared_ptr<Platform> platform) {
    if (platform == nullptr) {
        Mutex::Autolock lock(installed().lock);
        platform = installed().platform;
    }
    std::shared_ptr<Platform> session = platform == nullptr ? nullptr : platform->createSession();
    return session == nullptr ? platform : session;
}

std::shared_ptr<Platform> Platform::current() {
    if (tPlatform != nullptr) return tPlatform;
    Mutex::Autolock lock(installed().lock);
    if (installed().platform == nullptr) {
        __android_log_assert("platform == nullptr", "Platform", "no platform is installed");
    }
    return installed().platform;
}

Platform::Scope::Scope(const std::shared_ptr<Platform>& platform) : mBefore(tPlatform) {
    if (platform != nullptr) tPlatform = platform;
}

Platform::Scope::~Scope() { tPlatform = mBefore; }

QmMediaExtractorWrapper::QmMediaExtractorWrapper()
    : mBackend(Platform::current()->createExtractor()) {}
QmMediaExtractorWrapper::~QmMediaExtractorWrapper() = default;
status_t QmMediaExtractorWrapper::setDataSource(int fd, int64_t offset, int64_t length) {
    return mBackend->setDataSource(fd, offset, length);
}
size_t QmMediaExtractorWrapper::countTracks() { return mBackend->countTracks(); }
status_t QmMediaExtractorWrapper::getTrackFormat(size_t index, sp<AMessage>* format) {
    return mBackend->getTrackFormat(index, format);
}
status_t QmMediaExtractorWrapper::getFileFormat(sp<AMessage>* format) {
    return mBackend->getFileFormat(format);
}
status_t QmMediaExtractorWrapper::selectTrack(size_t index) { return mBackend->selectTrack(index); }
status_t QmMediaExtractorWrapper::getSampleTrackIndex(size_t* trackIndex) {
    return mBackend->getSampleTrackIndex(trackIndex);
}
status_t QmMediaExtractorWrapper::readSampleData(const sp<ABuffer>& buffer) {
    return mBackend->readSampleData(buffer);
}
status_t QmMediaExtractorWrapper::getSampleTime(int64_t* timeUs) {
    return mBackend->getSampleTime(timeUs);
}
status_t QmMediaExtractorWrapper::getSampleMeta(sp<MetaData>* meta) {
    return mBackend->getSampleMeta(meta);
}
status_t QmMediaExtractorWrapper::advance() { return mBackend->advance(); }
status_t QmMediaExtractorWrapper::seekTo(int64_t timeUs, SeekMode mode) {
    return mBackend->seekTo(timeUs, mode);
}

QmMediaAudioConverter::QmMediaAudioConverter()
    : mBackend(Platform::current()->createAudioConverter()) {}
QmMediaAudioConverter::~QmMediaAudioConverter() = default;
int QmMediaAudioConverter::init(int inChannelCount, int inSampleRate, int inBitDepth,
                                int outChannelCount, int outSampleRate, int outBitDepth) {
    return mBackend->init(inChannelCount, inSampleRate, inBitDepth, outChannelCount, outSampleRate,
                          outBitDepth);
}
unsigned char* QmMediaAudioConverter::allocateBuff(unsigned char* base, int frames, float ratio) {
    return mBackend->allocateBuff(base, frames, ratio);
}
int QmMediaAudioConverter::process(unsigned char* in, unsigned char* out, int frames) {
    return mBackend->process(in, out, frames);
}
void QmMediaAudioConverter::freeBuff(unsigned char* buffer) { mBackend->freeBuff(buffer); }

QmMediaEditorColorUtils::QmMediaEditorColorUtils() : mPlatform(Platform::current()) {}

void QmMediaEditorColorUtils::setOutputFormat(const sp<AMessage>& format, int width, int height,
                                              int cropLeft, int cropTop, int cropRight,
                                              int cropBottom, int stride, int sliceHeight) {
    mLayout = {format,    width,      height, cropLeft,   cropTop,
               cropRight, cropBottom, stride, sliceHeight};
}

void QmMediaEditorColorConverter::Scale(int srcStride, int srcSliceHeight, int srcWidth,
                                        int srcHeight, int srcColorFormat, unsigned char* src,
                                        int dstWidth, int dstHeight, int dstColorFormat,
                                        unsigned char* dst,
                                        const sp<QmMediaEditorColorUtils>& utils) {
    const ScaleRequest request{srcStride, srcSliceHeight, srcWidth,  srcHeight,      srcColorFormat,
                               src,       dstWidth,       dstHeight, dstColorFormat, dst,
                               utils};
    // Called on a thread of the session's.
    utils == nullptr ? Platform::current()->scale(request) : utils->platform().scale(request);
}

void Adapter::SetUuidData(const sp<MediaWriter>& writer, const unsigned char* data, int size) {
    // The component holds the platform's class; the session's platform knows its own.
    const auto* const own = static_cast<MPEG4Writer*>(writer.get());
    own->platform().setUuidData(own->implementation(), data, size);
}

bool Adapter::GetUseDitherTypeFromBrunch(int* type) {
    return Platform::current()->getUseDitherType(type);
}

}  // namespace qmmediaeditor

sp<MediaCodec> MediaCodec::CreateByType(const sp<ALooper>& looper, const AString& mime,
                                        bool encoder, status_t* err, pid_t /* pid */,
                                        uid_t /* uid */) {
    return qmmediaeditor::Platform::current()->createCodec(looper, mime, encoder, err);
}

const String16& IMediaRecorderClient::getInterfaceDescriptor() const {
    static const String16 descriptor("android.media.IMediaRecorderClient");
    return descriptor;
}

MPEG4Writer::MPEG4Writer(int fd)
    : mPlatform(qmmediaeditor::Platform::current()), mImplementation(mPlatform->createWriter(fd)) {}
MPEG4Writer::~MPEG4Writer() = default;
status_t MPEG4Writer::addSource(const sp<MediaSource>& source) {
    return mImplementation->addSource(source);
}
status_t MPEG4Writer::start(MetaData* params) { return mImplementation->start(params); }
bool MPEG4Writer::reachedEOS() { return mImplementation->reachedEOS(); }
status_t MPEG4Writer::stop() { return mImplementation->stop(); }
status_t MPEG4Writer::pause() { return mImplementation->pause(); }
void MPEG4Writer::setListener(const sp<IMediaRecorderClient>& listener) {
    mImplementation->setListener(listener);
}

}  // namespace android
