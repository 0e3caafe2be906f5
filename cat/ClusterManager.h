#pragma once
// ClusterManager: the least the start-up and pack load sequence needs for now; it
// allocates no clusters yet.
#include "include/ManagerStandIn.h"

class ClusterManager : public ManagerStandIn {
public:
    static ClusterManager* GetInstance();

private:
    ClusterManager() = default;
};
