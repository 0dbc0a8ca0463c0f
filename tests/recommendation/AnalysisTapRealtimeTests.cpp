#include <gtest/gtest.h>

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <new>
#include <vector>

#include "core/recommendation/BandProminenceAnalyzer.hpp"

// This binary replaces the global allocation functions and pthread_mutex_lock so that it can
// count what a real-time call does while `auditing` is raised around it.
namespace {
thread_local bool auditing = false;
std::atomic<long> auditedAllocations{0};
std::atomic<long> auditedLocks{0};

using MutexLock = int (*)(pthread_mutex_t*);
MutexLock realMutexLock() {
    static MutexLock real = reinterpret_cast<MutexLock>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    return real;
}
const bool resolved = realMutexLock() != nullptr;

struct Audit {
    Audit() { auditing = true; }
    ~Audit() { auditing = false; }
};

void auditedFree(void* p) noexcept {
    if (auditing && p) auditedAllocations.fetch_add(1, std::memory_order_relaxed);
    std::free(p);
}
} // namespace

extern "C" int pthread_mutex_lock(pthread_mutex_t* m) {
    if (auditing) auditedLocks.fetch_add(1, std::memory_order_relaxed);
    return realMutexLock()(m);
}

void* operator new(std::size_t n) {
    if (auditing) auditedAllocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t n) { return operator new(n); }
void operator delete(void* p) noexcept { auditedFree(p); }
void operator delete[](void* p) noexcept { auditedFree(p); }
void operator delete(void* p, std::size_t) noexcept { auditedFree(p); }
void operator delete[](void* p, std::size_t) noexcept { auditedFree(p); }

namespace tarn {
namespace {

TEST(AnalysisTapRealtime, TheAuditSeesAllocationsAndLocks) {
    ASSERT_TRUE(resolved);
    const long allocations = auditedAllocations, locks = auditedLocks;
    {
        Audit audit;
        std::vector<float> v(10);
        std::mutex m;
        std::lock_guard lock(m);
    }
    EXPECT_GE(auditedAllocations - allocations, 2);
    EXPECT_GE(auditedLocks - locks, 1);
}

TEST(AnalysisTapRealtime, WriteNeverAllocatesOrLocks) {
    BandProminenceAnalyzer analyzer; // its worker runs meanwhile, as in a live route
    analyzer.start(48000);
    auto& tap = analyzer.tap();
    tap.setEnabled(true);
    std::vector<float> block(8 * 9000, 0.25f);
    const long allocations = auditedAllocations, locks = auditedLocks;
    {
        Audit audit;
        for (int channels : {1, 2, 6, 8})
            for (int frames : {1, 128, 4096, 4097, 9000}) tap.write(block.data(), frames, channels); // fills the ring
        tap.setClockPaused(true);
        tap.write(block.data(), 512, 2);
        tap.setClockPaused(false);
        tap.setEnabled(false);
        tap.write(block.data(), 512, 2);
    }
    EXPECT_EQ(auditedAllocations - allocations, 0);
    EXPECT_EQ(auditedLocks - locks, 0);
    EXPECT_GT(tap.framesObserved(), 0);
}

} // namespace
} // namespace tarn
