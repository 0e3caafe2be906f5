#pragma once
// The range cache's diagnostic contexts: every public cache operation keeps one
// on its stack, registered with CacheManagerDiagnosticsHandler, so that a
// crash dump lists what each thread is doing in which cache.
#include <cstdint>
#include <ostream>

#include "util/Diagnostics.h"

class CacheRangeTracker;
class CacheTrackerObject;

DiagnosticHandler& CacheManagerDiagnosticsHandler();

// An operation on (set, start, length).
class CRTRangeContext : public DiagnosticContext {
public:
    CRTRangeContext(const char* op, CacheRangeTracker& t, uint32_t set, uint64_t start, uint32_t length)
        : DiagnosticContext(CacheManagerDiagnosticsHandler()), mOp(op), mTracker(t), mSet(set), mStart(start),
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
class CTOContext : public DiagnosticContext {
public:
    CTOContext(const char* op, CacheRangeTracker& t, CacheTrackerObject* cto)
        : DiagnosticContext(CacheManagerDiagnosticsHandler()), mOp(op), mTracker(t), mCto(cto) {}
    void DisplayContext(std::ostream& out) override;

private:
    const char* mOp;
    CacheRangeTracker& mTracker;
    CacheTrackerObject* mCto;
};

// An operation on two CTOs (a copy between caches).
class CTO2Context : public DiagnosticContext {
public:
    CTO2Context(const char* op, CacheTrackerObject* a, CacheTrackerObject* b)
        : DiagnosticContext(CacheManagerDiagnosticsHandler()), mOp(op), mA(a), mB(b) {}
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
