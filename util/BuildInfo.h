#pragma once
// The version and build date of this program, as reported at start and in an
// assertion's banner.
#include <string>

struct BuildInfo {
    static std::string buildDate();  // date and time joined by a comma
    static std::string version();    // "2.41.24969 (1.1.4) NODEBUG BUILD (GCC) (<model>)"
};
