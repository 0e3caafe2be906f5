#pragma once
// ManagerRegistry: the managers that the console's `state` and `perf`
// commands can name. A manager registers its Dump and, where it keeps figures,
// its PerfInfo, under the name an engineer types.
#include <functional>
#include <ostream>
#include <string>
#include <vector>

class ManagerRegistry {
public:
    using Printer = std::function<void(std::ostream&)>;
    static void add(const std::string& name, Printer dump, Printer perf = nullptr);
    static bool dump(const std::string& name, std::ostream& out);
    static bool perf(const std::string& name, std::ostream& out);
    static std::vector<std::string> names();
};
