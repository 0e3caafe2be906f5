#pragma once
// XORPerfInfo: the timing of every board XOR request, in microseconds of
// processor time ("XOR timings:"). Updated without a lock, so that XOR calls
// of many threads never wait for each other; a lost sample is accepted.
#include <ostream>

#include "util/PerfAccumulator.h"

struct XORPerfInfo {
    static XORPerfInfo& GetInstance();
    PerfAccumulator timings;
    void Dump(std::ostream& out) const;
};
