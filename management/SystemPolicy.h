#pragma once
// SystemPolicy: the least the start-up and pack load sequence needs for now; it
// drives no slot lights yet.
#include "util/StatusCode.h"

class SystemPolicy {
public:
    static SystemPolicy* GetInstance();
    StatusCode Initialize() { return StatusCode::Success; }
    StatusCode LoadDiskPack() { return StatusCode::Success; }
    StatusCode UnloadDiskPack() { return StatusCode::Success; }
    void SystemInitialized() {}
    void DiskSetLoaded() {}
    void DiskMounted(unsigned short slot) { (void)slot; }
    void ExpungeDisk(unsigned short slot) { (void)slot; }
    void RemoveDisk(unsigned short slot) { (void)slot; }

private:
    SystemPolicy() = default;
};
