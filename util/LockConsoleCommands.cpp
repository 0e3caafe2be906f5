// The `dumpLock` console command: the state of the named lock (every lock of
// that name), or of every lock that is held when no name is given.
#include <sstream>

#include "util/ConsoleCommand.h"
#include "util/LockProtection.h"
#include "util/QueuedLock.h"

namespace {
bool isHeld(LockObjectBase& lock) {
    if (auto* q = dynamic_cast<QueuedLock*>(&lock)) return q->isLocked();
    std::ostringstream text;
    lock.Dump(text, false);
    return text.str().find("LOCKED") != std::string::npos;
}

int dumpLockCommand(int argc, char** argv, std::ostream& out) {
    std::string name = argc > 1 ? argv[1] : "";
    unsigned found = 0;
    LockProtection::GetInstance().forEach([&](LockObjectBase& lock) {
        if (name.empty() ? !isHeld(lock) : lock.GetName() != name) return;
        ++found;
        lock.Dump(out, true);
    });
    if (found == 0) {
        if (name.empty()) out << "No lock is held\n";
        else out << "No lock named " << name << "\n";
    }
    return 0;
}

ConsoleCommand gDumpLock("dumpLock", "dumpLock <lock name> : Dump the state of the specific named lock",
                         dumpLockCommand);
}  // namespace
