#include "cache/CacheDiagnostics.h"

#include <sstream>

#include "cache/CacheRangeTracker.h"
#include "cache/CacheTrackerObject.h"

DiagnosticHandler& CacheManagerDiagnosticsHandler() {
    static DiagnosticHandler handler(nullptr, "CacheManager", 10);
    return handler;
}

namespace {
// Registered at start-up so that a dump lists the handler before any cache use.
[[maybe_unused]] DiagnosticHandler& gRegistered = CacheManagerDiagnosticsHandler();

CacheOpRecord rangeRecord(CacheOpRecord::Kind kind, const char* op, CacheRangeTracker& t, uint32_t set,
                          uint64_t start, uint32_t length) {
    CacheOpRecord r;
    r.kind = kind;
    r.op = op;
    r.cache = t.CacheName();
    r.set = set;
    r.start = start;
    r.length = length;
    return r;
}

CacheOpRecord ctoRecord(const char* op, const char* cache, CacheTrackerObject* cto) {
    CacheOpRecord r;
    r.kind = CacheOpRecord::Cto;
    r.op = op;
    r.cache = cache;
    r.a = cto;
    if (cto) {
        r.set = cto->mSet;
        r.start = cto->mStart;
        r.length = cto->mLen;
    }
    return r;
}

void show(std::ostream& out, const CacheOpRecord& r, bool halted) {
    auto range = [&] {
        out << r.cache << " " << r.op << " set " << r.set << " start 0x" << std::hex << r.start << std::dec
            << " length " << r.length;
    };
    auto cto = [&](const CacheTrackerObject* c) {
        // A running thread's CTO may be gone by now: only a halted one is read.
        if (halted && c) const_cast<CacheTrackerObject*>(c)->Dump(out);
        else out << "CTO 0x" << std::hex << uintptr_t(c) << std::dec;
    };
    switch (r.kind) {
        case CacheOpRecord::Range: range(); break;
        case CacheOpRecord::Cro:
            out << "CRO ";
            range();
            break;
        case CacheOpRecord::Cto:
            range();
            out << " ";
            cto(r.a);
            break;
        case CacheOpRecord::Copy:
            out << r.op << " from ";
            cto(r.a);
            out << " to ";
            cto(r.b);
            break;
    }
}
}  // namespace

CacheThreadContext& CacheThreadContext::forThisThread() {
    // Made at the thread's first cache operation, unregistered at its exit.
    thread_local CacheThreadContext context;
    return context;
}

void CacheThreadContext::push(const CacheOpRecord& r) {
    bump();
    uint32_t d = mDepth.load(std::memory_order_relaxed);
    if (d < kDepth) mOps[d] = r;
    mDepth.store(d + 1, std::memory_order_relaxed);
    bump();
}

void CacheThreadContext::pop() {
    bump();
    mDepth.store(mDepth.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
    bump();
}

void CacheThreadContext::DisplayContext(std::ostream& out) {
    const bool halted = DiagnosticsManager::inDiagnostics();
    for (int attempt = 0; attempt < 1000; ++attempt) {
        uint32_t before = mChanges.load(std::memory_order_acquire);
        if ((before & 1) && !halted) continue;
        uint32_t depth = mDepth.load(std::memory_order_relaxed);
        CacheOpRecord ops[kDepth];
        for (uint32_t i = 0; i < depth && i < kDepth; ++i) ops[i] = mOps[i];
        std::atomic_thread_fence(std::memory_order_acquire);
        if (!halted && mChanges.load(std::memory_order_relaxed) != before) continue;
        if (depth == 0) out << "no cache operation";
        for (uint32_t i = 0; i < depth && i < kDepth; ++i) {
            if (i) out << " -> ";
            show(out, ops[i], halted);
        }
        if (depth > kDepth) out << " -> (" << depth - kDepth << " more)";
        return;
    }
    out << "(cache operations changing too fast to show)";
}

CRTRangeContext::CRTRangeContext(const char* op, CacheRangeTracker& t, uint32_t set, uint64_t start, uint32_t length)
    : CacheOpContext(rangeRecord(CacheOpRecord::Range, op, t, set, start, length)) {}

CROContext::CROContext(const char* op, CacheRangeTracker& t, uint32_t set, uint64_t start, uint32_t length)
    : CacheOpContext(rangeRecord(CacheOpRecord::Cro, op, t, set, start, length)) {}

CTOContext::CTOContext(const char* op, CacheRangeTracker& t, CacheTrackerObject* cto)
    : CacheOpContext(ctoRecord(op, t.CacheName(), cto)) {}

CTO2Context::CTO2Context(const char* op, CacheTrackerObject* a, CacheTrackerObject* b)
    : CacheOpContext([&] {
          CacheOpRecord r;
          r.kind = CacheOpRecord::Copy;
          r.op = op;
          r.a = a;
          r.b = b;
          return r;
      }()) {}
