#include "util/CrashPoint.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "platform/board/Board.h"
#include "util/ConsoleCommand.h"

std::atomic<bool> gCrashPointArmed{false};

namespace {
std::mutex gLock;
std::string gName;
unsigned gPass = 1;
unsigned gSeen = 0;
std::once_flag gEnvOnce;

void readEnvironment() {
    const char* env = std::getenv("ESA_CRASH_AT");
    if (!env || !*env) return;
    std::string s = env;
    size_t colon = s.find(':');
    unsigned pass = 1;
    if (colon != std::string::npos) {
        pass = unsigned(std::strtoul(s.c_str() + colon + 1, nullptr, 10));
        s = s.substr(0, colon);
    }
    armCrashPoint(s, pass ? pass : 1);
}
}  // namespace

void armCrashPoint(const std::string& name, unsigned pass) {
    std::lock_guard<std::mutex> g(gLock);
    gName = name;
    gPass = pass;
    gSeen = 0;
    gCrashPointArmed = true;
}

void disarmCrashPoint() { gCrashPointArmed = false; }

void CrashPoint(const char* name) {
    std::call_once(gEnvOnce, readEnvironment);
    if (!gCrashPointArmed.load(std::memory_order_relaxed)) return;
    std::lock_guard<std::mutex> g(gLock);
    if (gName != name || ++gSeen < gPass) return;
    static const char msg[] = "CRASH POINT reached: ";
    (void)!::write(2, msg, sizeof msg - 1);
    (void)!::write(2, name, std::strlen(name));
    (void)!::write(2, "\n", 1);
    ::_exit(Board::kCrashPointExitStatus);
}

namespace {
// ESA_CRASH_AT is read at start, so that crashPointArmed() is right from the
// first point passed.
[[maybe_unused]] const bool gEnvironmentRead = (std::call_once(gEnvOnce, readEnvironment), true);

int crashPointCommand(int argc, char** argv, std::ostream& out) {
    if (argc == 2 && std::strcmp(argv[1], "off") == 0) {
        disarmCrashPoint();
        out << "crash point disarmed\n";
        return 0;
    }
    long long pass = 1;
    if (argc < 2 || argc > 3 || (argc == 3 && (!parseConsoleNumber(argv[2], pass) || pass < 1))) {
        out << "usage: crashPoint <name> [pass] | crashPoint off\n";
        return -1;
    }
    armCrashPoint(argv[1], unsigned(pass));
    out << "crash point " << argv[1] << " armed for pass " << pass << "\n";
    return 0;
}
ConsoleCommand gCrashPoint("crashPoint", "Ends the process, as a power cut would, when the named point is next passed",
                           crashPointCommand);
}  // namespace
