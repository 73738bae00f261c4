// Arithmetic on numbers that a request or a file may set to anything: results stop at the ends of
// the range.
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

// `b` is not 0.
inline int64_t saturatingDiv(int64_t a, int64_t b) { return b == -1 ? saturatingSub(0, a) : a / b; }

inline int32_t clampToInt32(int64_t value) {
    if (value < std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::min();
    if (value > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
    return static_cast<int32_t>(value);
}

}  // namespace qmmediaeditor
}  // namespace android
