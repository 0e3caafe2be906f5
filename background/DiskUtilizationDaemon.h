#pragma once
// DiskUtilizationDaemon: the least the start-up, the pack load and the host
// write path need for now. It tracks no capacity yet: it takes the pack as
// having room and clears the request thread's one-at-a-time mode at pack load,
// so host writes are answered from the write journal; it never sets the mode
// again as the pack fills.
#include "include/ManagerStandIn.h"

class DiskUtilizationDaemon : public ManagerStandIn {
public:
    static DiskUtilizationDaemon* GetInstance();
    void PostEventCapacity() {}
    StatusCode LoadDiskPack() override;

private:
    DiskUtilizationDaemon() = default;
};
