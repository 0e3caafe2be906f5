#include "cache/HostLbaTracker.h"

HostLbaTracker* HostLbaTracker::GetInstance() {
    static HostLbaTracker* instance = new HostLbaTracker();
    return instance;
}

StatusCode HostLbaTracker::IsSetAndRangeValid(uint32_t set, uint64_t start, uint32_t length) {
    if (set >= kMaxLuns) return StatusCode::CACHE_InvalidSet;
    return CacheRangeTracker::IsSetAndRangeValid(set, start, length);
}
