// Names threads that a library starts: they begin with the name of the thread that starts them.
#pragma once

#include <pthread.h>

#include <string>

namespace android {
namespace qmmediaeditor {

// The calling thread has this name, cut to the 15 characters that the kernel keeps, while one
// lives.
class ThreadName {
public:
    explicit ThreadName(const std::string& name) {
        pthread_getname_np(pthread_self(), mBefore, sizeof(mBefore));
        pthread_setname_np(pthread_self(), name.substr(0, sizeof(mBefore) - 1).c_str());
    }
    ~ThreadName() { pthread_setname_np(pthread_self(), mBefore); }
    ThreadName(const ThreadName&) = delete;
    ThreadName& operator=(const ThreadName&) = delete;

private:
    char mBefore[16] = "";
};

}  // namespace qmmediaeditor
}  // namespace android
