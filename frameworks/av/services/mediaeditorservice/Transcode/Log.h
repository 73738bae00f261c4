// The platform log. Arguments are evaluated only when somebody reads the message.
#pragma once

#include <android/log.h>
#include <stdint.h>

#define QM_LOG(priority, tag, ...)                                           \
    do {                                                                     \
        if (__android_log_is_loggable(priority, tag, ANDROID_LOG_VERBOSE)) { \
            __android_log_print(priority, tag, __VA_ARGS__);                 \
        }                                                                    \
    } while (false)

#define QM_LOGV(tag, ...) QM_LOG(ANDROID_LOG_VERBOSE, tag, __VA_ARGS__)
#define QM_LOGD(tag, ...) QM_LOG(ANDROID_LOG_DEBUG, tag, __VA_ARGS__)
#define QM_LOGI(tag, ...) QM_LOG(ANDROID_LOG_INFO, tag, __VA_ARGS__)
#define QM_LOGW(tag, ...) QM_LOG(ANDROID_LOG_WARN, tag, __VA_ARGS__)
#define QM_LOGE(tag, ...) QM_LOG(ANDROID_LOG_ERROR, tag, __VA_ARGS__)

namespace android {
namespace qmmediaeditor {

// int64_t is long on some machines and long long on others; messages say %lld.
inline long long wide(int64_t value) { return value; }

}  // namespace qmmediaeditor
}  // namespace android
