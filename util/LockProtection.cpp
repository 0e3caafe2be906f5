#include "util/LockProtection.h"

#include <sstream>

#include "util/ConsoleCommand.h"
#include "util/Diagnostics.h"
#include "util/QueuedLock.h"

LockProtection& LockProtection::GetInstance() {
    // Never destroyed: locks with static storage unregister during exit.
    static LockProtection* instance = new LockProtection;
    return *instance;
}

LockProtection::Registry& LockProtection::listFor(LockObjectBase::Kind kind) {
    switch (kind) {
    case LockObjectBase::Kind::Plain: return mLockObjects;
    case LockObjectBase::Kind::Extending: return mExtendingLockObjects;
    case LockObjectBase::Kind::Reentrant: break;
    }
    return mReentrantLockObjects;
}

LockProtection::Registry::iterator LockProtection::add(LockObjectBase* lock) {
    std::lock_guard<std::mutex> g(mLock);
    Registry& r = listFor(lock->kind());
    return r.insert(r.end(), lock);
}

void LockProtection::remove(LockObjectBase* lock, Registry::iterator position) {
    std::lock_guard<std::mutex> g(mLock);
    listFor(lock->kind()).erase(position);
}

void LockProtection::forEach(const std::function<void(LockObjectBase&)>& visit) {
    std::lock_guard<std::mutex> g(mLock);
    for (Registry* r : {&mLockObjects, &mExtendingLockObjects, &mReentrantLockObjects})
        for (LockObjectBase* l : *r) visit(*l);
}

bool LockProtection::tryForEach(const std::function<void(LockObjectBase&)>& visit) {
    std::unique_lock<std::mutex> g(mLock, std::try_to_lock);
    if (!g.owns_lock()) return false;
    for (Registry* r : {&mLockObjects, &mExtendingLockObjects, &mReentrantLockObjects})
        for (LockObjectBase* l : *r) visit(*l);
    return true;
}

// The `dumpLock` console command: the state of the named lock (every lock of
// that name), or of every lock that is held when no name is given. It lives
// beside the registry so that every program with locks has it.
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

// The diagnostics dump every held lock, so that a stopped system shows who
// held what.
void dumpHeldLocks(std::ostream& out) {
    bool any = false;
    bool done = LockProtection::GetInstance().tryForEach([&](LockObjectBase& lock) {
        if (!isHeld(lock)) return;
        any = true;
        lock.Dump(out, true);
    });
    if (!done) out << "Lock registry busy: held locks not dumped\n";
    else if (!any) out << "No lock is held\n";
}
DiagnosticHandler gLockDiagnostics(dumpHeldLocks, "Locks", 100);

ConsoleCommand gDumpLock("dumpLock", "dumpLock <lock name> : Dump the state of the specific named lock",
                         dumpLockCommand);
}  // namespace
