#pragma once
// Printing helpers for dumps: hexadecimal with the base prefix whatever the
// stream's flags, times split into units, and byte counts scaled by 1024.
#include <cstdint>
#include <ostream>
#include <string>

struct HexPrint {
    HexPrint(uint64_t v, int w = 0) : value(v), width(w) {}
    uint64_t value;
    int width;
};
std::ostream& operator<<(std::ostream& os, const HexPrint& h);

// Days, Hrs, Mins, Secs, ms, us: the non-zero units, at most `units` of them.
struct TimeDumper {
    TimeDumper(uint64_t us, int u = 6) : microseconds(us), units(u) {}
    std::string str() const;
    uint64_t microseconds;
    int units;
};
std::ostream& operator<<(std::ostream& os, const TimeDumper& t);

struct SizeDumper {
    SizeDumper(uint64_t v, int places = 0) : value(v), decimals(places) {}
    std::string str() const;
    uint64_t value;
    int decimals;
};
std::ostream& operator<<(std::ostream& os, const SizeDumper& s);
