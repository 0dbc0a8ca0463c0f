#pragma once

#include <atomic>

namespace tarn {

// Chooses between the portable build of a kernel and its AVX2 build at run time. Shipped
// binaries target the x86-64 baseline; kernels with an AVX2 twin ask here once per call (a
// read of data the runtime filled in at start-up: no system call, no lock). Run-time selection
// rather than ifunc resolvers keeps sanitizer builds working.
struct CpuDispatch {
    static bool hasAvx2() {
#if defined(__x86_64__) || defined(__i386__)
        return !portableOnly_.load(std::memory_order_relaxed) && __builtin_cpu_supports("avx2");
#else
        return false;
#endif
    }

    // Runs the portable builds even where AVX2 exists, so tests and benchmarks can compare the
    // two (their results must be identical).
    static void setPortableOnly(bool portableOnly) { portableOnly_.store(portableOnly); }

private:
    static inline std::atomic<bool> portableOnly_{false};
};

} // namespace tarn

#if defined(__x86_64__) || defined(__i386__)
#define TARN_TARGET_AVX2 __attribute__((target("avx2")))
#else
#define TARN_TARGET_AVX2
#endif
