#include "support/RealtimeAudit.hpp"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
thread_local bool auditing = false;
std::atomic<bool (*)()> auditPredicate{nullptr};
std::atomic<long> allocationCount{0};
std::atomic<long> lockCount{0};

bool isAudited() {
    if (auditing) return true;
    auto predicate = auditPredicate.load(std::memory_order_relaxed);
    return predicate && predicate();
}

using MutexLock = int (*)(pthread_mutex_t*);
MutexLock realMutexLock() {
    static MutexLock real = reinterpret_cast<MutexLock>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    return real;
}
// Resolve before any test thread runs.
const bool resolved = realMutexLock() != nullptr;

void* countedAlloc(std::size_t n) {
    if (isAudited()) allocationCount.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
void* countedAlignedAlloc(std::size_t n, std::align_val_t a) {
    if (isAudited()) allocationCount.fetch_add(1, std::memory_order_relaxed);
    const auto alignment = std::size_t(a);
    if (void* p = std::aligned_alloc(alignment, (n + alignment - 1) / alignment * alignment)) return p;
    throw std::bad_alloc();
}
void countedFree(void* p) noexcept {
    if (p && isAudited()) allocationCount.fetch_add(1, std::memory_order_relaxed);
    std::free(p);
}
} // namespace

namespace tarn::test {
Audit::Audit() { auditing = true; }
Audit::~Audit() { auditing = false; }
void auditWhile(bool (*predicate)()) { auditPredicate.store(predicate); }
long auditedAllocations() { return allocationCount.load(); }
long auditedLocks() { return lockCount.load(); }
bool auditHooksResolved() { return resolved; }
} // namespace tarn::test

extern "C" int pthread_mutex_lock(pthread_mutex_t* m) {
    if (isAudited()) lockCount.fetch_add(1, std::memory_order_relaxed);
    return realMutexLock()(m);
}

void* operator new(std::size_t n) { return countedAlloc(n); }
void* operator new[](std::size_t n) { return countedAlloc(n); }
void* operator new(std::size_t n, std::align_val_t a) { return countedAlignedAlloc(n, a); }
void* operator new[](std::size_t n, std::align_val_t a) { return countedAlignedAlloc(n, a); }
void operator delete(void* p) noexcept { countedFree(p); }
void operator delete[](void* p) noexcept { countedFree(p); }
void operator delete(void* p, std::size_t) noexcept { countedFree(p); }
void operator delete[](void* p, std::size_t) noexcept { countedFree(p); }
void operator delete(void* p, std::align_val_t) noexcept { countedFree(p); }
void operator delete[](void* p, std::align_val_t) noexcept { countedFree(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { countedFree(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { countedFree(p); }
