#pragma once
// DiskPackManager: the least the start-up and pack load sequence needs for now; it
// finds no pack: discovery is not built yet.
#include "include/ManagerStandIn.h"

class DiskPackManager : public ManagerStandIn {
public:
    static DiskPackManager* GetInstance();
    // Chooses a pack and, when one is viable, loads it through the second stage.
    StatusCode doColdStart(bool clearDisk);
    void diskPackLoadStatus(StatusCode status) { mLoadStatus = status; }
    StatusCode loadStatus() const { return mLoadStatus; }
    unsigned availableDiskCount() const { return 0; }

private:
    StatusCode mLoadStatus = StatusCode::DiskPackNotLoaded;

public:

private:
    DiskPackManager() = default;
};
