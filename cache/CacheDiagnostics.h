#pragma once
// The range cache's diagnostic contexts: every public cache operation keeps one
// on its stack, so that a crash dump lists what each thread is doing in which
// cache. A thread that uses the cache is registered once with
// CacheManagerDiagnosticsHandler (CacheThreadContext); each operation only
// records itself in its own thread's record, so that the cache's hit path
// shares no lock and no counter between threads for this.
#include <atomic>
#include <cstdint>
#include <ostream>

#include "util/Diagnostics.h"

class CacheRangeTracker;
class CacheTrackerObject;

DiagnosticHandler& CacheManagerDiagnosticsHandler();

// What one operation shows: plain values, copied when it begins.
struct CacheOpRecord {
    enum Kind : uint8_t { Range, Cro, Cto, Copy };
    Kind kind = Range;
    const char* op = "";
    const char* cache = "";
    uint32_t set = 0;
    uint64_t start = 0;
    uint32_t length = 0;
    const CacheTrackerObject* a = nullptr;
    const CacheTrackerObject* b = nullptr;
};

// The cache operations one thread is inside, outermost first. Only the owning
// thread changes its record, with plain ordered stores and a change count
// (odd while a change is under way); a dump of a running thread copies the
// records between two equal, even counts and retries otherwise. A halted
// thread (the dump after an assertion) is read as it stands, with the CTOs.
class CacheThreadContext : public DiagnosticContext {
public:
    static constexpr unsigned kDepth = 8;
    static CacheThreadContext& forThisThread();
    void DisplayContext(std::ostream& out) override;
    void push(const CacheOpRecord& r);
    void pop();

private:
    CacheThreadContext() : DiagnosticContext(CacheManagerDiagnosticsHandler()) {}
    void bump() { mChanges.store(mChanges.load(std::memory_order_relaxed) + 1, std::memory_order_release); }
    std::atomic<uint32_t> mChanges{0};
    std::atomic<uint32_t> mDepth{0};  // may pass kDepth: the deeper ones are not shown
    CacheOpRecord mOps[kDepth];
};

// The scope of one operation.
class CacheOpContext {
public:
    CacheOpContext(const CacheOpContext&) = delete;
    CacheOpContext& operator=(const CacheOpContext&) = delete;
    ~CacheOpContext() { CacheThreadContext::forThisThread().pop(); }

protected:
    explicit CacheOpContext(const CacheOpRecord& r) { CacheThreadContext::forThisThread().push(r); }
};

// An operation on (set, start, length).
class CRTRangeContext : public CacheOpContext {
public:
    CRTRangeContext(const char* op, CacheRangeTracker& t, uint32_t set, uint64_t start, uint32_t length);
};

// An operation on a CTO.
class CTOContext : public CacheOpContext {
public:
    CTOContext(const char* op, CacheRangeTracker& t, CacheTrackerObject* cto);
};

// An operation on two CTOs (a copy between caches).
class CTO2Context : public CacheOpContext {
public:
    CTO2Context(const char* op, CacheTrackerObject* a, CacheTrackerObject* b);
};

// An operation on one cached range (a read or write-back of a CRO).
class CROContext : public CacheOpContext {
public:
    CROContext(const char* op, CacheRangeTracker& t, uint32_t set, uint64_t start, uint32_t length);
};
