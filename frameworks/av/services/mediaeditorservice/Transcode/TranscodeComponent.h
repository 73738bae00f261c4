// The entry for the host: creates a TranscodeComponent, hands it a request with create(), blocks in
// process() and ends with destory(). Only cancel() may be called while process() runs.
//
// Errors are results (TranscodeErrors.h). These mistakes of the host abort the process, with one
// line in the log that says which: create(), destory() or clearHandler() while process() runs, also
// from its progress callback or from another thread; no platform; an empty progress callback, and
// one that throws. A codec or a file that breaks the platform's invariants aborts it as well.
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

// Runs one session after the other.
class QM_EXPORT TranscodeComponent : public RefBase {
public:
    TranscodeComponent();

    // Starts afresh with `property`, a TranscodeProperty*, which must outlive the session. With
    // null there is no session, and process() returns kInvalidRequest. Does not block. Returns 0.
    // The session works on the platform that Platform::install() has made the process's.
    virtual int32_t create(void* property);
    // The same on a platform of the session's own, which the session keeps: the host may release
    // it at once. Sessions of different platforms run side by side.
    int32_t create(void* property, std::shared_ptr<Platform> platform);

    // Runs the session on the calling thread, and blocks until the output is finished or the
    // session stops. Returns 0 when the file is whole; kInvalidRequest without a session, and
    // whenever the input cannot be opened; otherwise the first reason why the run ended
    // (TranscodeErrors.h). A session runs once: a second call without a new create() returns
    // kInvalidRequest and touches nothing.
    virtual int32_t process() noexcept;

    // Makes process() return kStopped soon, with the file closed after what was written; before
    // process(), makes it stop at its beginning. Any thread may call it between create() and
    // destory(), but not at the same time as these two. Without a session it has no effect. Does
    // not block. Returns 0.
    virtual int32_t cancel();

    // Ends the session and frees it; blocks until its threads have ended. Returns 0.
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
