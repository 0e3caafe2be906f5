// Console commands of the system manager: uptime, readonly, allowBgThreads,
// showPMUTemps, showPMUState, and crash.
#include <cstdio>
#include <cstring>

#include "platform/board/BoardServices.h"
#include "platform/rtos/Rtos.h"
#include "system/SystemManager.h"
#include "util/Assert.h"
#include "util/ConsoleCommand.h"
#include "util/PrintHelpers.h"

namespace {

int uptimeCommand(int, char**, std::ostream& out) {
    uint64_t ticks = tick64Get() - SystemManager::GetInstance()->bootTick();
    out << "System uptime: " << TimeDumper(ticks * 1000000ull / uint64_t(sysClkRateGet()), 4) << "\n";
    return 0;
}

int onOffCommand(int argc, char** argv, std::ostream& out, const char* what, bool (*get)(), void (*set)(bool)) {
    if (argc == 2) {
        if (std::strcmp(argv[1], "on") == 0) set(true);
        else if (std::strcmp(argv[1], "off") == 0) set(false);
        else {
            out << "usage: " << argv[0] << " [on|off]\n";
            return -1;
        }
    } else if (argc != 1) {
        out << "usage: " << argv[0] << " [on|off]\n";
        return -1;
    }
    out << what << " is " << (get() ? "on" : "off") << "\n";
    return 0;
}

int readonlyCommand(int argc, char** argv, std::ostream& out) {
    return onOffCommand(
        argc, argv, out, "Disk read-only mode", [] { return SystemManager::GetInstance()->readOnly(); },
        [](bool on) { SystemManager::GetInstance()->setReadOnly(on); });
}

int allowBgThreadsCommand(int argc, char** argv, std::ostream& out) {
    return onOffCommand(
        argc, argv, out, "Background threads", [] { return SystemManager::GetInstance()->allowBgThreads(); },
        [](bool on) { SystemManager::GetInstance()->setAllowBgThreads(on); });
}

int showPMUTempsCommand(int, char**, std::ostream& out) {
    PmuTemperatureRecord t{};
    if (boardSyscall(BoardSyscall::Pmu, PmuOp::ReadTemperatures, intptr_t(&t)) < 0) {
        out << "Get PMU temperatures syscall failed\n";
        return -1;
    }
    out << "Max " << int(t.maximum) << "C, average " << int(t.average) << "C, fan " << int(t.fanSpeed) << "\n";
    for (int i = 0; i < 8; ++i) out << "  slot " << i << ": " << int(t.slots[i]) << "C\n";
    out << "  ambient: " << int(t.ambient[0]) << "C " << int(t.ambient[1]) << "C\n";
    return 0;
}

int showPMUStateCommand(int, char**, std::ostream& out) {
    static const char* kStates[] = {"POWER_OFF", "IN_ACTIVE",    "POWER_GOOD",    "BACK_UP",  "POWER_VALID",
                                    "BACK_UP_WAIT", "BACK_UP_DELAY", "SHUTDOWN_WAIT", "NORMAL", "PROTECTED",
                                    "SILENCE",   "PAUSED",       "POWER_OFF_WAIT", "UNKNOWN"};
    PmuStateRecord s{};
    if (boardSyscall(BoardSyscall::Pmu, PmuOp::ReadState, intptr_t(&s)) < 0) {
        out << "Get PMU state syscall failed\n";
        return -1;
    }
    unsigned state = s.stateFlags >> 8;
    out << "PMU state " << (state < 14 ? kStates[state] : "UNKNOWN") << ", flags " << HexPrint(s.stateFlags & 0xff, 2)
        << ", uptime " << s.uptimeMinutes << " min, battery time latest/longest/total " << s.latestBatteryTime << "/"
        << s.longestBatteryTime << "/" << s.totalBatteryTime << " (tenths of a minute), power cycles "
        << s.powerCycles << "\n";
    return 0;
}

int crashCommand(int argc, char** argv, std::ostream& out) {
    if (argc == 2 && std::strcmp(argv[1], "confirm") == 0) {
        out << "Crashing the system deliberately\n";
        out.flush();
        reportUnaryAssertion(__FILE__, __LINE__, __func__, "crash confirm");
    }
    out << "Append the word \"confirm\" to crash the system\n";
    return -1;
}

ConsoleCommand gUptime("uptime", "Display the system uptime", uptimeCommand);
ConsoleCommand gReadonly("readonly", "Controls the disk readonly state - if enabled all disk writes are discarded",
                         readonlyCommand);
ConsoleCommand gAllowBg("allowBgThreads", "allow disabled background threads to be resumed", allowBgThreadsCommand);
ConsoleCommand gShowPMUTemps("showPMUTemps", "Show the current PMU temperatures", showPMUTempsCommand);
ConsoleCommand gShowPMUState("showPMUState", "Show the current PMU state", showPMUStateCommand);
ConsoleCommand gCrash("crash", "Use \"crash confirm\" to deliberate;y crash the system", crashCommand);

}  // namespace
