#pragma once
// RegionMetaDataTracker: the least the start-up and pack load sequence needs for now; it
// caches nothing yet: the range cache is not built.
#include "util/StatusCode.h"

class RegionMetaDataTracker {
public:
    static RegionMetaDataTracker* GetInstance();
    void flush() {}

private:
    RegionMetaDataTracker() = default;
};
