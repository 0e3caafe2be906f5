#pragma once
// Dispatcher: the least the start-up and pack load sequence needs for now; it
// runs no read or write threads yet.
#include "util/StatusCode.h"

class Dispatcher {
public:
    static Dispatcher* GetInstance();
    StatusCode Initialize() { return StatusCode::Success; }
    StatusCode LoadDiskPack() { return StatusCode::Success; }
    StatusCode UnloadDiskPack() { return StatusCode::Success; }

private:
    Dispatcher() = default;
};
