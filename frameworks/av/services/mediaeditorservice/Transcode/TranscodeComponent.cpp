#include <FatalChecks.h>
#include <Log.h>
#include <Platform.h>
#include <Transcode.h>
#include <TranscodeComponent.h>

#include <utility>

namespace android {
namespace qmmediaeditor {

namespace {

constexpr const char* kTag = "TranscodeComponent";
constexpr const char* kListenerTag = "Transcode";

}  // namespace

TranscodeComponent::TranscodeComponent() = default;

TranscodeComponent::~TranscodeComponent() { destory(); }

int32_t TranscodeComponent::create(void* property) { return create(property, nullptr); }

int32_t TranscodeComponent::create(void* property, std::shared_ptr<Platform> platform) {
    destory();
    if (property == nullptr) return OK;
    mPlatform = Platform::forNewSession(std::move(platform));
    mTranscode = new Transcode(static_cast<TranscodeProperty*>(property), nullptr);
    mUsed = false;
    return OK;
}

int32_t TranscodeComponent::process() noexcept {
    QM_LOGD(kTag, "call process");
    // A second run would use descriptors that the first one has closed, and a stop flag, an end of
    // stream and decoders that are used up.
    if (mTranscode == nullptr || mUsed.exchange(true)) return kInvalidRequest;
    mProcessing = true;
    const Platform::Scope scope(mPlatform);
    // The host is not told why a module could not be made.
    const int32_t result =
        mTranscode->createModule() == OK ? mTranscode->doTranscode() : kInvalidRequest;
    mProcessing = false;
    return result;
}

int32_t TranscodeComponent::cancel() {
    QM_LOGD(kTag, "call cancel");
    return mTranscode == nullptr ? OK : mTranscode->forceStop();
}

int32_t TranscodeComponent::destory() {
    // The session must not be deleted while its threads use it.
    checkRule(kTag, "create, destory or clearHandler called while process runs", !mProcessing);
    delete mTranscode;
    mTranscode = nullptr;
    mPlatform.reset();
    return OK;
}

int32_t TranscodeComponent::clearHandler() { return destory(); }

TranscodeListener::~TranscodeListener() { QM_LOGV(kListenerTag, "TranscodeListener destructor"); }

IBinder* TranscodeListener::onAsBinder() {
    QM_LOGD(kListenerTag, "TranscodeListener onAsBinder");
    return nullptr;
}

void TranscodeListener::notify(int msg, int ext1, int ext2) {
    QM_LOGD(kListenerTag, "TranscodeListener notify %d, %d, %d", msg, ext1, ext2);
    if (mTranscode != nullptr) mTranscode->notify(msg, ext1, ext2);
}

}  // namespace qmmediaeditor
}  // namespace android
