#pragma once
// DiskUtilizationDaemon: the least the start-up and pack load sequence needs for now; it
// tracks no capacity yet.
#include "include/ManagerStandIn.h"

class DiskUtilizationDaemon : public ManagerStandIn {
public:
    static DiskUtilizationDaemon* GetInstance();
    void PostEventCapacity() {}

private:
    DiskUtilizationDaemon() = default;
};
