#pragma once
// The range cache's diagnostic contexts: every public cache operation keeps one
// on its stack, so that a crash dump lists what each thread is doing in which
// cache. A thread that uses the cache is registered once with
// CacheManagerDiagnosticsHandler (CacheThreadContext); each operation only
// links itself into its own thread's record, under that record's own lock,
// so that the cache's hit path shares no lock between threads for this.
#include <cstdint>
#include <mutex>
#include <ostream>

#include "util/Diagnostics.h"

class CacheRangeTracker;
class CacheTrackerObject;

DiagnosticHandler& CacheManagerDiagnosticsHandler();

class CacheOpContext {
public:
    CacheOpContext(const CacheOpContext&) = delete;
    CacheOpContext& operator=(const CacheOpContext&) = delete;
    virtual void DisplayContext(std::ostream& out) = 0;

protected:
    CacheOpContext();
    virtual ~CacheOpContext();

private:
    friend class CacheThreadContext;
    CacheOpContext* mOuter = nullptr;
};

// The cache operations one thread is inside, innermost first, as the
// diagnostics handler shows them.
class CacheThreadContext : public DiagnosticContext {
public:
    static CacheThreadContext& forThisThread();
    void DisplayContext(std::ostream& out) override;
    void push(CacheOpContext* op);
    void pop(CacheOpContext* op);

private:
    CacheThreadContext() : DiagnosticContext(CacheManagerDiagnosticsHandler()) {}
    std::mutex mLock;
    CacheOpContext* mTop = nullptr;
};

// An operation on (set, start, length).
class CRTRangeContext : public CacheOpContext {
public:
    CRTRangeContext(const char* op, CacheRangeTracker& t, uint32_t set, uint64_t start, uint32_t length)
        : mOp(op), mTracker(t), mSet(set), mStart(start),
          mLength(length) {}
    void DisplayContext(std::ostream& out) override;

private:
    const char* mOp;
    CacheRangeTracker& mTracker;
    uint32_t mSet;
    uint64_t mStart;
    uint32_t mLength;
};

// An operation on a CTO.
class CTOContext : public CacheOpContext {
public:
    CTOContext(const char* op, CacheRangeTracker& t, CacheTrackerObject* cto)
        : mOp(op), mTracker(t), mCto(cto) {}
    void DisplayContext(std::ostream& out) override;

private:
    const char* mOp;
    CacheRangeTracker& mTracker;
    CacheTrackerObject* mCto;
};

// An operation on two CTOs (a copy between caches).
class CTO2Context : public CacheOpContext {
public:
    CTO2Context(const char* op, CacheTrackerObject* a, CacheTrackerObject* b)
        : mOp(op), mA(a), mB(b) {}
    void DisplayContext(std::ostream& out) override;

private:
    const char* mOp;
    CacheTrackerObject* mA;
    CacheTrackerObject* mB;
};

// An operation on one cached range (a read or write-back of a CRO).
class CROContext : public CRTRangeContext {
public:
    using CRTRangeContext::CRTRangeContext;
    void DisplayContext(std::ostream& out) override;
};
