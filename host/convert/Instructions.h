// Row loops that are compiled three times: for every machine, and with AVX2 and AVX-512 where the
// machine has them. The compiler vectorises all. They do the same operations on each element, none
// of them fused, so the results are the same.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace android {
namespace qmmediaeditor {

enum class Instructions { kBest, kUpToAvx2, kPortable };

// For the loops themselves, which become part of the functions that call them.
#define QM_INLINED inline __attribute__((always_inline))

#if defined(__x86_64__)
#define QM_AVX2 __attribute__((target("avx2")))
#define QM_AVX512 __attribute__((target("avx512f,avx512bw,avx512dq,avx512vl")))
inline bool shouldUseAvx2(Instructions instructions) {
    return instructions != Instructions::kPortable && __builtin_cpu_supports("avx2");
}
inline bool shouldUseAvx512(Instructions instructions) {
    return instructions == Instructions::kBest && __builtin_cpu_supports("avx512bw") &&
           __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl");
}
#else
#define QM_AVX2
#define QM_AVX512
inline bool shouldUseAvx512(Instructions) { return false; }
inline bool shouldUseAvx2(Instructions) { return false; }
#endif

// Not inlined into loops for AVX2: its gather instructions take longer than single loads. A word
// of indexes at a time takes a third less time than one index at a time.
template <typename Value>
__attribute__((noinline)) void lookUp(const Value* table, const uint16_t* indexes, int count,
                                      Value* values) {
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "of words");
    constexpr size_t kStep = 8;
    constexpr size_t kPerWord = sizeof(size_t) / sizeof(*indexes);
    const auto end = static_cast<size_t>(count);
    size_t i = 0;
    for (; i + kStep <= end; i += kStep) {
        size_t words[kStep / kPerWord];
        memcpy(words, indexes + i, sizeof(words));
        Value found[kStep];
        for (size_t j = 0; j < kStep; ++j) {
            found[j] = table[(words[j / kPerWord] >> (j % kPerWord * 16)) & UINT16_MAX];
        }
        memcpy(values + i, found, sizeof(found));
    }
    for (; i < end; ++i) values[i] = table[indexes[i]];
}

}  // namespace qmmediaeditor
}  // namespace android
