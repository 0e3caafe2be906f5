#pragma once
// Timing and size histograms for the diagnostics. Updated without locks: a
// lost count is accepted. A sample v goes to bin floor(log2(v)) (0 for v = 0),
// clamped to 31; LinearAccumulator uses bins of one unit up to 32.
#include <cstdint>
#include <ostream>
#include <string>

struct PerfAccumulator {
    uint32_t samples = 0;
    uint64_t total = 0;  // microseconds
    uint32_t min = 0;
    uint32_t max = 0;
    uint32_t bins[32] = {};

    static int binFor(uint64_t value);
    void add(uint64_t microseconds);
    void reset() { *this = PerfAccumulator(); }
    void Dump(std::ostream& out, bool longForm = false) const;
};

struct DataAccumulator : PerfAccumulator {  // sizes, in sectors
    void Dump(std::ostream& out, bool longForm = false) const;
};

struct LinearAccumulator {
    uint32_t samples = 0;
    uint64_t total = 0;
    uint64_t min = 0;
    uint64_t max = 0;
    uint32_t bins[32] = {};
    void add(uint64_t value);
    void Dump(std::ostream& out) const;
};

// Adds the elapsed microseconds of its scope to an accumulator, and reports to
// the console when the elapsed time exceeds the limit.
class PerfSamplerLimitForced {
public:
    PerfSamplerLimitForced(PerfAccumulator* acc, const char* text, uint64_t limitMicroseconds);
    ~PerfSamplerLimitForced();

protected:
    void finish();
    PerfAccumulator* mAcc;
    uint64_t mStart;
    const char* mText;
    uint64_t mLimit;
    bool mDone = false;
};

class ManualPerfSamplerLimitForced : public PerfSamplerLimitForced {
public:
    using PerfSamplerLimitForced::PerfSamplerLimitForced;
    void stop() { finish(); }
};

uint64_t getTimebase();  // microseconds of board time
