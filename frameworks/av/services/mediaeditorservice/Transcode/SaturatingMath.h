// 64-bit arithmetic on times that a request may set to anything: results stop at the ends of the
// range.
#pragma once

#include <stdint.h>

#include <limits>

namespace android {
namespace qmmediaeditor {

inline int64_t saturatingAdd(int64_t a, int64_t b) {
    int64_t result;
    if (!__builtin_add_overflow(a, b, &result)) return result;
    return b < 0 ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
}

inline int64_t saturatingSub(int64_t a, int64_t b) {
    int64_t result;
    if (!__builtin_sub_overflow(a, b, &result)) return result;
    return b > 0 ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
}

inline int64_t saturatingMul(int64_t a, int64_t b) {
    int64_t result;
    if (!__builtin_mul_overflow(a, b, &result)) return result;
    return (a < 0) != (b < 0) ? std::numeric_limits<int64_t>::min()
                              : std::numeric_limits<int64_t>::max();
}

}  // namespace qmmediaeditor
}  // namespace android
