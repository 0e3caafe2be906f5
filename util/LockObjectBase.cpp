#include "util/LockObjectBase.h"

#include <sstream>

#include "util/Assert.h"
#include "util/LockTask.h"
#include "util/Trace.h"

std::atomic<bool> LockObjectBase::bypass{false};

#ifdef ESA_LOCK_ORDER_CHECK
std::atomic<long> LockObjectBase::sWaitLimitMs{60000};
#else
std::atomic<long> LockObjectBase::sWaitLimitMs{-1};
#endif

LockObjectBase::LockObjectBase(const char* name, unsigned long level, Kind kind)
    : mName(name ? name : ""), mLevel(level), mKind(kind) {}

void LockObjectBase::reportStuckWait() {
    std::ostringstream out;
    out << "Lock wait limit passed: " << lockTaskName(currentLockTask()) << " waited " << waitLimitMs()
        << " ms for " << mName << "\n";
    Dump(out, true);
    ESA_CONSOLE(out.str());
    reportUnaryAssertion(__FILE__, __LINE__, __func__, "lock wait timed out");
}
