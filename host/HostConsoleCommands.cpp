// Console commands of the host path: the LUN table (createLun,
// createLunDeferred, deleteLun), one-at-a-time mode, the throughput and the
// worker threads, the HRM's test path for corrupt writes, and the HRM's
// state and figures under `state HRM` and `perf HRM` (and `hrmStateShow`).
#include <cstdlib>
#include <string>

#include "host/Dispatcher.h"
#include "host/HRManager.h"
#include "host/TopEnd.h"
#include "util/ConsoleCommand.h"
#include "util/ManagerRegistry.h"

namespace {

struct Registration {
    Registration() {
        for (const char* name : {"HRManager", "HRM"})
            ManagerRegistry::add(
                name, [](std::ostream& out) { HRManager::GetInstance()->Dump(out); },
                [](std::ostream& out) { HRManager::GetInstance()->PerfInfo(out); });
    }
} gRegistration;

// A LUN size: a number of bytes with an optional k, m, g or t suffix (powers
// of 1024), a multiple of 512; 0 or "default" for the pack's default size.
// The LUN table works in last LBAs: the result is the sector count less one.
bool parseLunSize(const char* text, unsigned long long& lastLba) {
    std::string s = text;
    if (s == "0" || s == "default") {
        lastLba = 0;
        return true;
    }
    unsigned long long mult = 1;
    char last = s.empty() ? 0 : char(std::tolower(s.back()));
    if (last == 'k' || last == 'm' || last == 'g' || last == 't') {
        mult = last == 'k' ? 1ull << 10 : last == 'm' ? 1ull << 20 : last == 'g' ? 1ull << 30 : 1ull << 40;
        s.pop_back();
    }
    long long v = 0;
    if (!parseConsoleNumber(s.c_str(), v) || v <= 0) return false;
    unsigned long long bytes = (unsigned long long)v * mult;
    if (bytes % 512 != 0 || bytes < 4096) return false;
    lastLba = bytes / 512 - 1;
    return true;
}

int createLunCommand(int argc, char** argv, std::ostream& out) {
    unsigned long long size = 0;
    if (argc > 2 || (argc == 2 && !parseLunSize(argv[1], size))) {
        out << "usage: createLun [SIZE]   (bytes, with k/m/g/t, a multiple of 512; none or 0 for the default size)\n";
        return -1;
    }
    StatusCode s = HRManager::GetInstance()->createLun(size, false);
    out << "createLun: " << (s.ok() ? "LUN created" : "FAILED: " + s.Dump()) << "\n";
    return s.ok() ? 0 : -1;
}

int createLunDeferredCommand(int argc, char** argv, std::ostream& out) {
    unsigned long long size = 0;
    if (argc > 2 || (argc == 2 && !parseLunSize(argv[1], size))) {
        out << "usage: createLunDeferred [SIZE]   (created at the next pack load)\n";
        return -1;
    }
    StatusCode s = HRManager::GetInstance()->createLunDeferred(size);
    out << "createLunDeferred: " << (s.ok() ? "pending" : "FAILED: " + s.Dump()) << "\n";
    return s.ok() ? 0 : -1;
}

int deleteLunCommand(int argc, char** argv, std::ostream& out) {
    long long lun = 0, key = 0;
    if (argc < 2 || argc > 3 || !parseConsoleNumber(argv[1], lun) || lun < 0 || lun > 255 ||
        (argc == 3 && (!parseConsoleNumber(argv[2], key) || key < 0 || key > 0xffff))) {
        out << "usage: deleteLun LUN [KEY]\n";
        return -1;
    }
    StatusCode s = HRManager::GetInstance()->deleteLun((unsigned long)lun, (unsigned short)key);
    out << "deleteLun: " << (s.ok() ? "LUN deleted" : "FAILED: " + s.Dump()) << "\n";
    return s.ok() ? 0 : -1;
}

int corruptHRMWritesCommand(int argc, char** argv, std::ostream& out) {
    long long n = 0;
    if (argc != 2 || !parseConsoleNumber(argv[1], n) || n < 0) {
        out << "usage: corruptHRMWrites COUNT   (that many writes of 9 sectors or more succeed without being done)\n";
        return -1;
    }
    HRManager::GetInstance()->corruptHRMWrites = uint32_t(n);
    out << "corruptHRMWrites: " << n << "\n";
    return 0;
}

int stateShowCommand(int, char**, std::ostream& out) {
    HRManager::GetInstance()->stateShow(out);
    return 0;
}

int oneAtATimeCommand(int argc, char** argv, std::ostream& out) {
    TopEnd* t = TopEnd::GetInstance();
    std::string a = argc == 2 ? argv[1] : "";
    if (a == "on") t->setForceOneAtATime(true);
    else if (a == "off") t->setForceOneAtATime(false);
    else if (a != "count") {
        out << "usage: oneatatime on|off|count\n";
        return -1;
    }
    t->onAtATimeCount(out);
    return 0;
}

int throughputCommand(int, char**, std::ostream& out) {
    TopEnd::GetInstance()->throughput(out);
    return 0;
}

int throughputHistoryCommand(int, char**, std::ostream& out) {
    TopEnd::GetInstance()->throughputHistory(out);
    return 0;
}

int threadActivityCommand(int, char**, std::ostream& out) {
    Dispatcher::GetInstance()->threadActivity(out);
    return 0;
}

ConsoleCommand gCreateLun("createLun", "expose new LUN to host", createLunCommand);
ConsoleCommand gCreateLunDeferred("createLunDeferred", "deferred LUN create", createLunDeferredCommand);
ConsoleCommand gDeleteLun("deleteLun", "delete an existing LUN", deleteLunCommand);
ConsoleCommand gCorruptHrm("corruptHRMWrites", "corrupt writes at the HRM", corruptHRMWritesCommand);
ConsoleCommand gHrmState("hrmStateShow", "Displays the host request manager's state", stateShowCommand);
ConsoleCommand gOneAtATime("oneatatime", "Set one-at-a-time mode on/off", oneAtATimeCommand);
ConsoleCommand gThroughput("throughput", "Dumps the system throughput over the next second", throughputCommand);
ConsoleCommand gThroughputHistory("throughputHistory", "Dumps the system throughput history",
                                  throughputHistoryCommand);
ConsoleCommand gThreadActivity("threadActivity", "Displays the activity of the host I/O worker threads",
                               threadActivityCommand);

}  // namespace
