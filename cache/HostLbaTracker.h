#pragma once
// HostLbaTracker: the least the start-up and pack load sequence needs for now; it
// caches nothing yet: the range cache is not built.
#include "util/StatusCode.h"

class HostLbaTracker {
public:
    static HostLbaTracker* GetInstance();
    void flush() {}

private:
    HostLbaTracker() = default;
};
