#include <android/log.h>
#include <cxxabi.h>
#include <host/Host.h>
#include <qmtranscode/cli/Console.h>
#include <qmtranscode/qmtranscode.h>
#include <utils/Mutex.h>

#include <exception>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "bindings/c/JobRun.h"
#include "bindings/c/ThreadState.h"

namespace android::qmmediaeditor::api {

namespace {

// Of the calling thread's last failed call.
struct LastError {
    std::string code;
    std::string text;
};
thread_local LastError tError;

qmt_status failed(qmt_status status, const char* code, const std::string& text) {
    constexpr size_t kMaxTextBytes = 1000;
    tError.code = code;
    tError.text = cli::console::printable(text.substr(0, kMaxTextBytes));
    return status;
}

qmt_status invalidHandle() {
    return failed(QMT_INVALID_HANDLE, "invalid-handle",
                  "there is no such job: it was freed, or it never was one");
}

qmt_status nullPointer(const char* parameter) {
    return failed(QMT_INVALID_ARGUMENT, "invalid-argument",
                  std::string(parameter) + " must not be null");
}

class Job {
public:
    explicit Job(JobRequest request)
        : mRequest(std::move(request)),
          mRun(mRequest.isolates ? createIsolatedRun() : createLocalRun()) {}

    qmt_status run(qmt_progress progress, void* context) {
        {
            Mutex::Autolock lock(mLock);
            if (mState == State::kRunning) {
                return failed(QMT_BUSY, "busy", "the job is running");
            }
            if (mState == State::kEnded) {
                return failed(QMT_USED, "used", "the job has run; make a new one");
            }
            mState = State::kRunning;
        }
        std::function<void(int32_t)> onProgress;
        if (progress != nullptr) {
            // Its exceptions cannot pass through the threads of the run.
            onProgress = [progress, context](int32_t percent) {
                try {
                    progress(context, percent);
                } catch (const abi::__forced_unwind&) {
                    __android_log_assert(nullptr, "qmtranscode",
                                         "the progress function of qmt_job_run ended its thread");
                } catch (...) {
                    __android_log_assert(nullptr, "qmtranscode",
                                         "the progress function of qmt_job_run threw an exception");
                }
            };
        }
        const SafeThread safe;
        JobEnd end = runSafely(std::move(onProgress));
        Mutex::Autolock lock(mLock);
        mState = State::kEnded;
        mEnd = std::move(end);
        if (mEnd.status == cli::kExitComplete) return QMT_OK;
        return failed(static_cast<qmt_status>(mEnd.status), mEnd.code.c_str(), mEnd.text);
    }

    void cancel() { mRun->cancel(); }

    qmt_status receipt(const char** text) const {
        Mutex::Autolock lock(mLock);
        if (mState != State::kEnded) {
            return failed(QMT_NOT_RUN, "not-run",
                          "the job has no receipt before the end of its run");
        }
        *text = mEnd.receipt.c_str();
        return QMT_OK;
    }

    bool isRunning() const {
        Mutex::Autolock lock(mLock);
        return mState == State::kRunning;
    }

private:
    enum class State { kNew, kRunning, kEnded };

    JobEnd runSafely(std::function<void(int32_t)> onProgress) {
        try {
            return mRun->run(mRequest, std::move(onProgress));
        } catch (const std::exception& error) {
            const bool lacksMemory = dynamic_cast<const std::bad_alloc*>(&error) != nullptr;
            return failedEnd(
                {cli::kExitFailed, "", lacksMemory ? "not enough memory" : error.what(),
                 lacksMemory ? cli::kMemoryCode : "unknown-error"},
                "opening", mRequest.options);
        }
    }

    const JobRequest mRequest;
    const std::unique_ptr<JobRun> mRun;
    mutable Mutex mLock;
    State mState GUARDED_BY(mLock) = State::kNew;
    JobEnd mEnd GUARDED_BY(mLock);
};

class JobTable {
public:
    qmt_job add(std::shared_ptr<Job> job) {
        Mutex::Autolock lock(mLock);
        mJobs.emplace(++mLast, std::move(job));
        return mLast;
    }

    // Null when there is none.
    std::shared_ptr<Job> find(qmt_job handle) const {
        Mutex::Autolock lock(mLock);
        const auto found = mJobs.find(handle);
        return found == mJobs.end() ? nullptr : found->second;
    }

    qmt_status remove(qmt_job handle) {
        std::shared_ptr<Job> job;  // destroyed without the lock
        Mutex::Autolock lock(mLock);
        const auto found = mJobs.find(handle);
        if (found == mJobs.end()) return invalidHandle();
        if (found->second->isRunning()) {
            return failed(QMT_BUSY, "busy", "the job is running; cancel it and wait for its end");
        }
        job = std::move(found->second);
        mJobs.erase(found);
        return QMT_OK;
    }

private:
    mutable Mutex mLock;
    std::map<qmt_job, std::shared_ptr<Job>> mJobs GUARDED_BY(mLock);
    // Not small numbers, which other libraries use for handles as well.
    qmt_job mLast GUARDED_BY(mLock) = 0x716D740000000000;
};

// Never destroyed, because threads may end after the static objects of the process.
JobTable& jobs() {
    static auto& table = *new JobTable;
    return table;
}

// No exception leaves the library.
template <typename Call>
qmt_status guarded(const Call& call) noexcept {
    try {
        return call();
    } catch (...) {
        tError.code.clear();
        tError.text.clear();
        return QMT_NO_MEMORY;
    }
}

// `call` gets the job.
template <typename Call>
qmt_status withJob(qmt_job handle, const Call& call) noexcept {
    return guarded([&]() -> qmt_status {
        const std::shared_ptr<Job> job = jobs().find(handle);
        return job == nullptr ? invalidHandle() : call(*job);
    });
}

qmt_status newJob(const char* text, qmt_job* handle) {
    auto request = parseRequest(text);
    if (const auto* failure = std::get_if<cli::Failure>(&request)) {
        return failed(static_cast<qmt_status>(failure->status), failure->code.c_str(),
                      failure->text());
    }
    *handle = jobs().add(std::make_shared<Job>(std::move(std::get<JobRequest>(request))));
    return QMT_OK;
}

}  // namespace

}  // namespace android::qmmediaeditor::api

using namespace android::qmmediaeditor;

const char* qmt_version(void) { return QMTRANSCODE_VERSION; }

qmt_status qmt_configure_process(uint32_t settings) {
    return api::guarded([settings]() -> qmt_status {
        if ((settings & ~static_cast<uint32_t>(QMT_LIMIT_ALLOCATIONS | QMT_QUIET)) != 0) {
            return api::failed(QMT_INVALID_ARGUMENT, "invalid-argument", "unknown setting");
        }
        ProcessOptions options;
        options.limitsAllocations = (settings & QMT_LIMIT_ALLOCATIONS) != 0;
        options.isQuiet = (settings & QMT_QUIET) != 0;
        configureProcess(options);
        return QMT_OK;
    });
}

qmt_status qmt_job_new(const char* request, qmt_job* job) {
    return api::guarded([&]() -> qmt_status {
        if (job == nullptr) return api::nullPointer("job");
        *job = 0;
        return request == nullptr ? api::nullPointer("request") : api::newJob(request, job);
    });
}

qmt_status qmt_job_run(qmt_job job, qmt_progress progress, void* context) {
    return api::withJob(job, [&](api::Job& found) { return found.run(progress, context); });
}

qmt_status qmt_job_cancel(qmt_job job) {
    return api::withJob(job, [](api::Job& found) {
        found.cancel();
        return QMT_OK;
    });
}

qmt_status qmt_job_receipt(qmt_job job, const char** receipt) {
    if (receipt != nullptr) *receipt = nullptr;
    return api::withJob(job, [receipt](const api::Job& found) {
        return receipt == nullptr ? api::nullPointer("receipt") : found.receipt(receipt);
    });
}

qmt_status qmt_job_free(qmt_job job) {
    return api::guarded([job] { return api::jobs().remove(job); });
}

const char* qmt_error_text(void) { return api::tError.text.c_str(); }

const char* qmt_error_code(void) { return api::tError.code.c_str(); }
