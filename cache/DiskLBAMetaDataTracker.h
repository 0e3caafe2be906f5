#pragma once
// DiskLBAMetaDataTracker: the least the start-up and pack load sequence needs for now; it
// caches nothing yet: the range cache is not built.
#include "util/StatusCode.h"

class DiskLBAMetaDataTracker {
public:
    static DiskLBAMetaDataTracker* GetInstance();
    void flush() {}

private:
    DiskLBAMetaDataTracker() = default;
};
