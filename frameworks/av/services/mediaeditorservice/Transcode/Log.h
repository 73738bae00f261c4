// The platform log, which formats a message only when somebody reads it.
#pragma once

#include <android/log.h>
#include <stdint.h>

#define QM_LOGV(tag, ...) __android_log_print(ANDROID_LOG_VERBOSE, tag, __VA_ARGS__)
#define QM_LOGD(tag, ...) __android_log_print(ANDROID_LOG_DEBUG, tag, __VA_ARGS__)
#define QM_LOGI(tag, ...) __android_log_print(ANDROID_LOG_INFO, tag, __VA_ARGS__)
#define QM_LOGW(tag, ...) __android_log_print(ANDROID_LOG_WARN, tag, __VA_ARGS__)
#define QM_LOGE(tag, ...) __android_log_print(ANDROID_LOG_ERROR, tag, __VA_ARGS__)

namespace android {
namespace qmmediaeditor {

// int64_t is long on some machines and long long on others; messages say %lld.
inline long long wide(int64_t value) { return value; }

}  // namespace qmmediaeditor
}  // namespace android
