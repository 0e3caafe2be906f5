#include "util/LockOrderChecker.h"

#include <cstring>
#include <mutex>
#include <sstream>

#include "util/Assert.h"
#include "util/LockObjectBase.h"
#include "util/LockTask.h"
#include "util/Trace.h"

#ifdef ESA_LOCK_ORDER_CHECK
std::atomic<bool> LockOrderChecker::sEnabled{true};
#else
std::atomic<bool> LockOrderChecker::sEnabled{false};
#endif

namespace {

// The lock order, outermost first. Entries on one line share a rank.
const std::vector<std::vector<std::vector<const char*>>> kChains = {
    // Pack.
    {{"lDPMhotPlug"}, {"eGlobalDIS"}},
    // Zone layer: Zone table, stripe locks in rmdt, then the layout and parity locks.
    {{"eZoneTableLock"}, {"rmdt*"}, {"rLMUpdateLock"}, {"lLMRepairLock"}, {"rXORLock"}},
    // Map and journal.
    {{"hlbat*"}, {"lCATMLock"}, {"rCLTLock", "zmdt*"}, {"lJ2BuildList"}, {"lJ2Soft"}, {"rJ2Flush"}},
    // J1 replay.
    {{"J1RExTagListLock"}, {"J1RTagCacheLock"}},
    // Filesystem awareness.
    {{"lCSBBUMLock"},
     {"lCSFLTContainerLock"},
     {"lCSFLTLock*"},
     {"eDeallocatedSpaceTableContainerLock"},
     {"eDeallocatedSpaceTableLock*"},
     {"eAstLock*"},
     {"eAbubContainerLock"},
     {"eAbubLock*"}},
};

bool matches(const char* pattern, const std::string& name) {
    size_t n = std::strlen(pattern);
    if (n > 0 && pattern[n - 1] == '*') return name.compare(0, n - 1, pattern, n - 1) == 0;
    return name == pattern;
}

struct Held {
    const LockObjectBase* lock;
    uint64_t transId;
};
thread_local std::vector<Held> tHeld;

std::mutex gReporterLock;
LockOrderChecker::Reporter gReporter;

void report(const std::string& text) {
    LockOrderChecker::Reporter r;
    {
        std::lock_guard<std::mutex> g(gReporterLock);
        r = gReporter;
    }
    if (r) {
        r(text);
        return;
    }
    ESA_CONSOLE(text);
    reportUnaryAssertion(__FILE__, __LINE__, __func__, "lock order violated");
}

std::string describeHolder(const char* who, uint64_t transId) {
    std::ostringstream out;
    out << who;
    if (transId) out << " for TransID " << transId;
    else out << " - not associated with a transaction";
    return out.str();
}

void checkPair(const LockObjectBase* taking, int chain, int rank, const LockObjectBase* held, uint64_t heldTrans,
               const std::string& heldBy, uint64_t takingTrans) {
    if (held == taking || held->GetName() == taking->GetName()) return;
    int heldChain, heldRank;
    if (!LockOrderChecker::position(held->GetName(), heldChain, heldRank)) return;
    if (heldChain != chain || heldRank <= rank) return;
    std::ostringstream out;
    out << "LOCK ORDER VIOLATION: \"" << taking->GetName() << "\" taken by "
        << describeHolder(lockTaskName(currentLockTask()).c_str(), takingTrans) << " while \"" << held->GetName()
        << "\" is held by " << describeHolder(heldBy.c_str(), heldTrans) << "; \"" << taking->GetName()
        << "\" must be taken before \"" << held->GetName() << "\"";
    report(out.str());
}

}  // namespace

bool LockOrderChecker::position(const std::string& name, int& chain, int& rank) {
    for (size_t c = 0; c < kChains.size(); ++c)
        for (size_t r = 0; r < kChains[c].size(); ++r)
            for (const char* p : kChains[c][r])
                if (matches(p, name)) {
                    chain = int(c);
                    rank = int(r);
                    return true;
                }
    return false;
}

void LockOrderChecker::check(const LockObjectBase* lock, uint64_t transId,
                             const std::vector<TransactionLock>* transactionLocks) {
    int chain, rank;
    if (!position(lock->GetName(), chain, rank)) return;
    std::string self = lockTaskName(currentLockTask());
    for (const Held& h : tHeld) checkPair(lock, chain, rank, h.lock, h.transId, self, transId);
    if (transactionLocks)
        for (const TransactionLock& t : *transactionLocks)
            checkPair(lock, chain, rank, t.lock, t.transId, "transaction", transId);
}

void LockOrderChecker::noteHeld(const LockObjectBase* lock, uint64_t transId) {
    tHeld.push_back(Held{lock, transId});
}

void LockOrderChecker::forget(const LockObjectBase* lock) {
    for (size_t i = tHeld.size(); i-- > 0;)
        if (tHeld[i].lock == lock) {
            tHeld.erase(tHeld.begin() + long(i));
            return;
        }
}

bool LockOrderChecker::threadHolds(const LockObjectBase* lock) {
    for (const Held& h : tHeld)
        if (h.lock == lock) return true;
    return false;
}

LockOrderChecker::Reporter LockOrderChecker::setReporter(Reporter reporter) {
    std::lock_guard<std::mutex> g(gReporterLock);
    Reporter old = gReporter;
    gReporter = std::move(reporter);
    return old;
}
