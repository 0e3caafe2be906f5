#pragma once
// LayoutManager: the least the start-up and pack load sequence needs for now; it
// never re-lays a Zone out yet.
#include "include/ManagerStandIn.h"

class LayoutManager : public LifecycleStandIn {
public:
    static LayoutManager* GetInstance();
    void InitiateBackgroundRepair() {}
    void InitiateAddDisk(unsigned short logicalDisk) { (void)logicalDisk; }
    void InitiateRemoveDisk(unsigned short logicalDisk) { (void)logicalDisk; }

private:
    LayoutManager() = default;
};
