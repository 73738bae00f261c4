#include <fakes/ScriptedPlatform.h>
#include <string.h>

namespace android::qmmediaeditor {

namespace {

ScriptedPlatform* gInstalled = nullptr;

// Sessions of a test end before its platform.
std::shared_ptr<Platform> borrowed(ScriptedPlatform* platform) {
    return {std::shared_ptr<Platform>(), platform};
}

}  // namespace

int ScriptedAudioConverter::init(int inChannelCount, int inSampleRate, int inBitDepth,
                                 int outChannels, int outSampleRate, int outBitDepth) {
    mJournal->addf("converter init %d %d %d to %d %d %d", inChannelCount, inSampleRate, inBitDepth,
                   outChannels, outSampleRate, outBitDepth);
    outChannelCount = outChannels;
    return initResult;
}

unsigned char* ScriptedAudioConverter::allocateBuff(unsigned char*, int frames, float ratio) {
    mJournal->addf("converter allocateBuff %d %.3f", frames, static_cast<double>(ratio));
    if (outOfMemory) return nullptr;
    ++allocations;
    return new unsigned char[bytesOut()];
}

int ScriptedAudioConverter::process(unsigned char*, unsigned char* out, int frames) {
    mJournal->addf("converter process %d", frames);
    memset(out, 'c', bytesOut());
    return framesOut;
}

void ScriptedAudioConverter::freeBuff(unsigned char* buffer) {
    --allocations;
    delete[] buffer;
}

ScriptedPlatform::ScriptedPlatform() : mBefore(gInstalled) {
    gInstalled = this;
    install(borrowed(this));
}

ScriptedPlatform::~ScriptedPlatform() {
    gInstalled = mBefore;
    install(borrowed(mBefore));
}

sp<ScriptedCodec> ScriptedPlatform::prepare(const std::string& mime, bool encoder) {
    // As the real ones: a decoder's dequeue comes back.
    sp<ScriptedCodec> codec =
        new ScriptedCodec((encoder ? "encoder " : "decoder ") + mime, &mJournal);
    codec->setBlocking(encoder);
    mCodecs[{mime, encoder}].push_back(codec);
    return codec;
}

sp<MediaCodec> ScriptedPlatform::createCodec(const sp<ALooper>& looper, const AString& mime,
                                             bool encoder, status_t*) {
    const Kind kind(mime.c_str(), encoder);
    // A codec works on a looper that runs: starting it again is refused.
    const bool running = looper->start() != OK;
    mJournal.add("platform createCodec " + kind.first + (encoder ? " encoder" : " decoder") +
                 (running ? "" : " without a looper"));
    if (mRefused.count(kind) != 0) return nullptr;
    if (mCodecs[kind].empty()) prepare(kind.first, encoder);
    const sp<ScriptedCodec> next = mCodecs[kind].front();
    mCodecs[kind].pop_front();
    return next;
}

sp<MediaWriter> ScriptedPlatform::createWriter(int) {
    mJournal.add("platform createWriter");
    return mWriter;
}

void ScriptedPlatform::scale(const ScaleRequest& request) {
    memset(request.dst, request.src[0],
           static_cast<size_t>(request.dstWidth * request.dstHeight * 3 / 2));
    std::lock_guard<std::mutex> guard(mLock);
    mScaleRequests.push_back(request);
}

std::vector<ScaleRequest> ScriptedPlatform::scaleRequests() const {
    std::lock_guard<std::mutex> guard(mLock);
    return mScaleRequests;
}

void ScriptedPlatform::setUuidData(const sp<MediaWriter>& writer, const unsigned char* data,
                                   int size) {
    mJournal.addf("platform setUuidData %d%s", size, writer == mWriter ? "" : " other writer");
    mUuidData.assign(data, data + size);
}

bool ScriptedPlatform::getUseDitherType(int* type) {
    if (mDitherType < 0) return false;
    *type = mDitherType;
    return true;
}

}  // namespace android::qmmediaeditor
