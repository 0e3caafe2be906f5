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
