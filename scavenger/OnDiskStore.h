#pragma once
// OnDiskStore: the least the start-up and pack load sequence needs for now; it
// stores no scavenger metadata yet.
#include "include/ManagerStandIn.h"

class OnDiskStore : public LifecycleStandIn {
public:
    static OnDiskStore* GetInstance();

private:
    OnDiskStore() = default;
};
