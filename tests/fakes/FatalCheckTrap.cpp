#include <android/log.h>
#include <fakes/FatalCheckTrap.h>
#include <pthread.h>

#include <atomic>

namespace android::qmmediaeditor {

namespace {

std::atomic<FatalCheckTrap*> gTrap{nullptr};

}  // namespace

// The log library never gets back the lock that it holds while it calls the aborter: the aborter
// stays for the life of the process.
FatalCheckTrap::FatalCheckTrap() : mOwner(std::this_thread::get_id()) {
    static std::once_flag installed;
    std::call_once(installed, [] { __android_log_set_aborter(onFailure); });
    gTrap = this;
}

FatalCheckTrap::~FatalCheckTrap() { gTrap = nullptr; }

void FatalCheckTrap::onFailure(const char* message) {
    FatalCheckTrap* trap = gTrap;
    if (trap == nullptr) {
        __android_log_default_aborter(message);
        return;
    }
    if (std::this_thread::get_id() == trap->mOwner) throw FatalCheckFailure(message);
    {
        std::lock_guard<std::mutex> guard(trap->mLock);
        trap->mElsewhere.push_back(message);
    }
    pthread_exit(nullptr);
}

std::vector<std::string> FatalCheckTrap::elsewhere() const {
    std::lock_guard<std::mutex> guard(mLock);
    return mElsewhere;
}

}  // namespace android::qmmediaeditor
