#include "util/ManagerRegistry.h"

#include <algorithm>
#include <mutex>

#include "util/ConsoleCommand.h"

namespace {
struct Entry {
    std::string name;
    ManagerRegistry::Printer dump, perf;
};
std::mutex gLock;
std::vector<Entry>& entries() {
    static std::vector<Entry> e;
    return e;
}
bool lowerEqual(const std::string& a, const std::string& b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return std::tolower(x) == std::tolower(y); });
}
}  // namespace

void ManagerRegistry::add(const std::string& name, Printer dump, Printer perf) {
    std::lock_guard<std::mutex> g(gLock);
    for (Entry& e : entries())
        if (e.name == name) {
            e.dump = std::move(dump);
            e.perf = std::move(perf);
            return;
        }
    entries().push_back(Entry{name, std::move(dump), std::move(perf)});
}

static bool print(const std::string& name, std::ostream& out, bool perf) {
    ManagerRegistry::Printer p;
    {
        std::lock_guard<std::mutex> g(gLock);
        for (Entry& e : entries())
            if (lowerEqual(e.name, name)) p = perf ? e.perf : e.dump;
    }
    if (!p) return false;
    p(out);
    return true;
}

bool ManagerRegistry::dump(const std::string& name, std::ostream& out) { return print(name, out, false); }
bool ManagerRegistry::perf(const std::string& name, std::ostream& out) { return print(name, out, true); }

std::vector<std::string> ManagerRegistry::names() {
    std::lock_guard<std::mutex> g(gLock);
    std::vector<std::string> n;
    for (Entry& e : entries()) n.push_back(e.name);
    std::sort(n.begin(), n.end());
    return n;
}

namespace {
int managerCommand(int argc, char** argv, std::ostream& out, bool perf) {
    if (argc == 2 && (perf ? ManagerRegistry::perf(argv[1], out) : ManagerRegistry::dump(argv[1], out))) return 0;
    out << "usage: " << argv[0] << " <manager>; managers:";
    for (auto& n : ManagerRegistry::names()) out << " " << n;
    out << "\n";
    return -1;
}
int stateCommand(int argc, char** argv, std::ostream& out) { return managerCommand(argc, argv, out, false); }
int perfCommand(int argc, char** argv, std::ostream& out) { return managerCommand(argc, argv, out, true); }
ConsoleCommand gState("state", "Displays the internal state for the specified manager class", stateCommand);
ConsoleCommand gPerf("perf", "Displays the performance results for the specified manager class", perfCommand);
}  // namespace
