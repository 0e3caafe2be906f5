#pragma once
// SystemPolicy: the least the start-up and pack load sequence needs for now; it
// drives no slot lights yet.
#include "include/ManagerStandIn.h"

class SystemPolicy : public LifecycleStandIn {
public:
    static SystemPolicy* GetInstance();
    // Sets the system's disk error limits (the only part of start-up it does yet).
    StatusCode Initialize();
    void SystemInitialized() {}
    void DiskSetLoaded() {}
    void DiskMounted(unsigned short slot) { (void)slot; }
    void ExpungeDisk(unsigned short slot) { (void)slot; }
    void RemoveDisk(unsigned short slot) { (void)slot; }
    // A refused or failed disk, and the help indication of an unloadable pack:
    // told on the console until the slot lights exist.
    void DiskFail(unsigned short slot);
    void help();

private:
    SystemPolicy() = default;
};
