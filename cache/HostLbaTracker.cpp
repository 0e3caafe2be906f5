#include "cache/HostLbaTracker.h"


HostLbaTracker* HostLbaTracker::GetInstance() {
    static HostLbaTracker instance;
    return &instance;
}
