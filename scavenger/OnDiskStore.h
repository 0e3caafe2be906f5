#pragma once
// OnDiskStore: the least the start-up and pack load sequence needs for now; it
// stores no scavenger metadata yet.
#include "util/StatusCode.h"

class OnDiskStore {
public:
    static OnDiskStore* GetInstance();
    StatusCode Initialize() { return StatusCode::Success; }
    StatusCode LoadDiskPack() { return StatusCode::Success; }
    StatusCode UnloadDiskPack() { return StatusCode::Success; }

private:
    OnDiskStore() = default;
};
