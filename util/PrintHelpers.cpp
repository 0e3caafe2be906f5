#include "util/PrintHelpers.h"

#include <cstdio>
#include <sstream>

std::ostream& operator<<(std::ostream& os, const HexPrint& h) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "0x%0*llx", h.width, (unsigned long long)h.value);
    return os << buf;
}

std::string TimeDumper::str() const {
    static const struct {
        uint64_t us;
        const char* name;
    } kUnits[] = {{86400000000ull, "Days"}, {3600000000ull, "Hrs"}, {60000000ull, "Mins"},
                  {1000000ull, "Secs"},     {1000ull, "ms"},         {1ull, "us"}};
    std::ostringstream os;
    uint64_t rest = microseconds;
    int printed = 0;
    for (auto& u : kUnits) {
        uint64_t n = rest / u.us;
        rest %= u.us;
        if (n == 0 || printed >= units) continue;
        if (printed) os << " ";
        os << n << u.name;
        ++printed;
    }
    if (printed == 0) os << "0us";
    return os.str();
}

std::ostream& operator<<(std::ostream& os, const TimeDumper& t) { return os << t.str(); }

std::string SizeDumper::str() const {
    static const char* kSuffix[] = {"Bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    double v = double(value);
    int i = 0;
    while (v >= 1024.0 && i < 6) {
        v /= 1024.0;
        ++i;
    }
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*f %s", i == 0 ? 0 : decimals, v, kSuffix[i]);
    return buf;
}

std::ostream& operator<<(std::ostream& os, const SizeDumper& s) { return os << s.str(); }
