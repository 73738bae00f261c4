// Row loops that are compiled twice: for every machine, and with AVX2 where the machine has it. The
// compiler vectorises both. They do the same operations on each element, none of them fused, so the
// results are the same.
#pragma once

#include <stdint.h>

namespace android {
namespace qmmediaeditor {

enum class Instructions { kBest, kPortable };

// For the loops themselves, which become part of the two functions that call them.
#define QM_INLINED inline __attribute__((always_inline))

#if defined(__x86_64__)
#define QM_AVX2 __attribute__((target("avx2")))
inline bool shouldUseAvx2(Instructions instructions) {
    return instructions == Instructions::kBest && __builtin_cpu_supports("avx2");
}
#else
#define QM_AVX2
inline bool shouldUseAvx2(Instructions) { return false; }
#endif

// Not inlined into loops for AVX2: its gather instructions take longer than single loads.
template <typename Value>
__attribute__((noinline)) void lookUp(const Value* table, const uint16_t* indexes, int count,
                                      Value* values) {
#pragma GCC unroll 8
    for (int i = 0; i < count; ++i) values[i] = table[indexes[i]];
}

}  // namespace qmmediaeditor
}  // namespace android
