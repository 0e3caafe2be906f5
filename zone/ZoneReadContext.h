#pragma once
// ZMDataContext: what a thread in the Zone read or write path is doing
// (ZMReadDataContext, ZMWriteDataContext: Zone, offset, length), shown by a
// diagnostics dump for as long as the call runs. Lives on the caller's stack.
#include <cstdint>
#include <ostream>

#include "util/Diagnostics.h"

DiagnosticHandler& zoneManagerIODiagnostics();

class ZMDataContext : public DiagnosticContext {
public:
    ZMDataContext(const char* kind, uint32_t zone, uint64_t offset, uint32_t length)
        : DiagnosticContext(zoneManagerIODiagnostics()), mKind(kind), mZone(zone), mOffset(offset),
          mLength(length) {}
    void DisplayContext(std::ostream& out) override {
        out << mKind << ": Zone=" << mZone << " offset=0x" << std::hex << mOffset << " length=0x" << mLength
            << std::dec << "\n";
    }

private:
    const char* mKind;
    uint32_t mZone;
    uint64_t mOffset;
    uint32_t mLength;
};
