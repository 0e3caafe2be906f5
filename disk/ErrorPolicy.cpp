#include "disk/ErrorPolicy.h"

ErrorPolicy* ErrorPolicy::GetInstance() {
    static ErrorPolicy instance;
    return &instance;
}

void ErrorPolicy::blockError(uint32_t type, StatusCode status, uint16_t slot, uint64_t lba, uint32_t length,
                             uint32_t timeoutTime, bool deferred) {
    std::lock_guard<std::mutex> g(mLock);
    if (mPending.size() == kMaxPending) mPending.pop_front();
    mPending.push_back(PendingError{type, status, slot, lba, length, timeoutTime, deferred});
}

std::vector<ErrorPolicy::PendingError> ErrorPolicy::pendingErrors() {
    std::lock_guard<std::mutex> g(mLock);
    return {mPending.begin(), mPending.end()};
}

void ErrorPolicy::clearPendingErrors() {
    std::lock_guard<std::mutex> g(mLock);
    mPending.clear();
}
