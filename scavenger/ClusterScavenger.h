#pragma once
// ClusterScavenger: the least the start-up and pack load sequence needs for now; it
// reclaims nothing yet.
#include "include/ManagerStandIn.h"

class ClusterScavenger : public LifecycleStandIn {
public:
    static ClusterScavenger* GetInstance();

private:
    ClusterScavenger() = default;
};
