#pragma once
// Stand-ins for managers whose subsystems are not built yet: they take part
// in every start, pack load and unload, and do nothing. A manager leaves its
// stand-in base when its subsystem is built.
#include "include/ManagerBase.h"

class ManagerStandIn : public ManagerBase {
public:
    StatusCode Initialize() override { return StatusCode::Success; }
    StatusCode LoadDiskPack() override { return StatusCode::Success; }
    StatusCode UnloadDiskPack() override { return StatusCode::Success; }
};

// The same life cycle for managers that are not ManagerBase.
class LifecycleStandIn {
public:
    StatusCode Initialize() { return StatusCode::Success; }
    StatusCode LoadDiskPack() { return StatusCode::Success; }
    StatusCode UnloadDiskPack() { return StatusCode::Success; }
};
