#pragma once
// ZoneMetaDataTracker: the least the start-up and pack load sequence needs for now; it
// caches nothing yet: the range cache is not built.
#include "util/StatusCode.h"

class ZoneMetaDataTracker {
public:
    static ZoneMetaDataTracker* GetInstance();
    void flush() {}

private:
    ZoneMetaDataTracker() = default;
};
