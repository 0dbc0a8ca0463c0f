#pragma once

// Counts what real-time code does: heap allocations and frees, and pthread_mutex_lock calls,
// made while a thread is audited — the current thread while an Audit is alive, or any thread for
// which the predicate given to auditWhile answers true.
//
// The object file behind this header replaces the program's global allocation functions and
// pthread_mutex_lock. A test binary pulls it in only by using something declared here, so the
// replacement stays confined to the binaries that audit.

namespace tarn::test {

class Audit {
public:
    Audit();
    ~Audit();
    Audit(const Audit&) = delete;
    Audit& operator=(const Audit&) = delete;
};

// Also audit every thread for which `predicate` is true (for example "inside a platform callback").
// Set it before the audited threads start.
void auditWhile(bool (*predicate)());

// Running totals over everything audited so far (take a difference around the audited calls).
long auditedAllocations();
long auditedLocks();

// Whether the real pthread_mutex_lock was found to forward to; nothing is counted reliably otherwise.
bool auditHooksResolved();

} // namespace tarn::test
