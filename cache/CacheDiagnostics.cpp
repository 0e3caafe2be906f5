#include "cache/CacheDiagnostics.h"

#include "cache/CacheRangeTracker.h"
#include "cache/CacheTrackerObject.h"

DiagnosticHandler& CacheManagerDiagnosticsHandler() {
    static DiagnosticHandler handler(nullptr, "CacheManager", 10);
    return handler;
}

namespace {
// Registered at start-up so that a dump lists the handler before any cache use.
[[maybe_unused]] DiagnosticHandler& gRegistered = CacheManagerDiagnosticsHandler();

void range(std::ostream& out, const char* op, CacheRangeTracker& t, uint32_t set, uint64_t start, uint32_t length) {
    out << t.CacheName() << " " << op << " set " << set << " start 0x" << std::hex << start << std::dec << " length "
        << length;
}
}  // namespace

CacheThreadContext& CacheThreadContext::forThisThread() {
    // Made at the thread's first cache operation, unregistered at its exit.
    thread_local CacheThreadContext context;
    return context;
}

void CacheThreadContext::push(CacheOpContext* op) {
    std::lock_guard<std::mutex> g(mLock);
    op->mOuter = mTop;
    mTop = op;
}

void CacheThreadContext::pop(CacheOpContext* op) {
    std::lock_guard<std::mutex> g(mLock);
    if (mTop == op) mTop = op->mOuter;
}

void CacheThreadContext::DisplayContext(std::ostream& out) {
    std::unique_lock<std::mutex> g(mLock, std::defer_lock);
    // A halted thread may hold its record's lock: the dump reads it as it is.
    if (!g.try_lock() && !DiagnosticsManager::inDiagnostics()) g.lock();
    if (!mTop) {
        out << "no cache operation";
        return;
    }
    for (CacheOpContext* op = mTop; op; op = op->mOuter) {
        op->DisplayContext(out);
        if (op->mOuter) out << " <- ";
    }
}

CacheOpContext::CacheOpContext() { CacheThreadContext::forThisThread().push(this); }

CacheOpContext::~CacheOpContext() { CacheThreadContext::forThisThread().pop(this); }

void CRTRangeContext::DisplayContext(std::ostream& out) { range(out, mOp, mTracker, mSet, mStart, mLength); }

void CROContext::DisplayContext(std::ostream& out) {
    out << "CRO ";
    CRTRangeContext::DisplayContext(out);
}

void CTOContext::DisplayContext(std::ostream& out) {
    out << mTracker.CacheName() << " " << mOp << " ";
    if (mCto) mCto->Dump(out);
}

void CTO2Context::DisplayContext(std::ostream& out) {
    out << mOp << " from ";
    if (mA) mA->Dump(out);
    out << " to ";
    if (mB) mB->Dump(out);
}
