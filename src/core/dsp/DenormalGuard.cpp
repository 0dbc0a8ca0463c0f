#include "core/dsp/DenormalGuard.hpp"

#include <cstdint>

#if defined(__x86_64__) || defined(__i386__)
#include <xmmintrin.h>
#endif

namespace tarn {

#if defined(__x86_64__) || defined(__i386__)
namespace {
constexpr unsigned int mxcsrFlushToZero = 1u << 15;
constexpr unsigned int mxcsrDenormalsAreZero = 1u << 6;
constexpr unsigned int mxcsrBoth = mxcsrFlushToZero | mxcsrDenormalsAreZero;
} // namespace

void DenormalGuard::enableFlushToZero() {
    const unsigned int csr = _mm_getcsr();
    if ((csr & mxcsrBoth) == mxcsrBoth) return;
    _mm_setcsr(csr | mxcsrBoth);
}

bool DenormalGuard::isFlushToZeroEnabled() { return (_mm_getcsr() & mxcsrBoth) == mxcsrBoth; }

#elif defined(__aarch64__)
namespace {
constexpr std::uint64_t fpcrFlushToZero = std::uint64_t{1} << 24;
std::uint64_t readFpcr() {
    std::uint64_t v;
    asm volatile("mrs %0, fpcr" : "=r"(v));
    return v;
}
} // namespace

void DenormalGuard::enableFlushToZero() {
    const std::uint64_t fpcr = readFpcr();
    if (fpcr & fpcrFlushToZero) return;
    const std::uint64_t updated = fpcr | fpcrFlushToZero;
    asm volatile("msr fpcr, %0" : : "r"(updated));
}

bool DenormalGuard::isFlushToZeroEnabled() { return (readFpcr() & fpcrFlushToZero) != 0; }

#else
// No known control register: denormals stay enabled and cost time, never correctness.
void DenormalGuard::enableFlushToZero() {}
bool DenormalGuard::isFlushToZeroEnabled() { return false; }
#endif

} // namespace tarn
