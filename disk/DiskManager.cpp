#include "disk/DiskManager.h"

StatusCode DiskManager::LoadDiskPack(bool) { return StatusCode::Success; }
void DiskManager::FlushAllDisksBypassQueue() {}

DiskManager* DiskManager::GetInstance() {
    static DiskManager instance;
    return &instance;
}
