// The entry for the host: creates a TranscodeComponent, hands it a request with create(), blocks in
// process() and ends with destory(). Only cancel() may be called while process() runs.
#pragma once

#include <TranscodeErrors.h>
#include <TranscodeTypes.h>
#include <stdint.h>
#include <utils/RefBase.h>

#include <atomic>
#include <memory>

namespace android {
namespace qmmediaeditor {

class Platform;
class Transcode;

// create(), destory() and clearHandler() must not be called while process() runs, not from its
// progress callback either: each of them aborts the process then.
class QM_EXPORT TranscodeComponent : public RefBase {
public:
    TranscodeComponent();

    // Starts afresh with `property`, a TranscodeProperty*, which must outlive the session. With
    // null there is no session, and process() returns kInvalidRequest. Does not block. 0.
    // The session works on the platform that Platform::install() has made the process's.
    virtual int32_t create(void* property);
    // The same on a platform of the session's own, which the session keeps: the host may let go of
    // it at once. Sessions of different platforms run side by side.
    int32_t create(void* property, std::shared_ptr<Platform> platform);

    // Runs the session on the calling thread, and blocks until the output is finished or the
    // session stops. Returns 0 when the file is whole; kInvalidRequest without a session, and
    // whenever the input cannot be opened; otherwise the first reason why the run ended
    // (TranscodeErrors.h). A session runs once: a second call without a new create() returns
    // kInvalidRequest and touches nothing.
    virtual int32_t process() noexcept;

    // Makes process() return kStopped soon, with the file closed after what was written. Any
    // thread, at any time between create() and destory(); does not block. 0.
    virtual int32_t cancel();

    // Ends the session and frees it; blocks until its threads have ended. 0.
    virtual int32_t destory();

    // As destory().
    int32_t clearHandler();

protected:
    ~TranscodeComponent() override;

private:
    std::shared_ptr<Platform> mPlatform;  // the session's; null if there was none at create()
    Transcode* mTranscode = nullptr;
    std::atomic<bool> mUsed{false};        // process() was called since create()
    std::atomic<bool> mProcessing{false};  // process() runs
};

}  // namespace qmmediaeditor
}  // namespace android
