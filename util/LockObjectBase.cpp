#include "util/LockObjectBase.h"

std::atomic<bool> LockObjectBase::bypass{false};
