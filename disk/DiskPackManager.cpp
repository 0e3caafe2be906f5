#include "disk/DiskPackManager.h"

StatusCode DiskPackManager::doColdStart(bool) {
    diskPackLoadStatus(StatusCode::DiskPackNotLoaded);
    return StatusCode::DiskPackNotLoaded;
}

DiskPackManager* DiskPackManager::GetInstance() {
    static DiskPackManager instance;
    return &instance;
}
