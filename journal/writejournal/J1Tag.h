#pragma once
// J1Tag: the least the start-up and pack load sequence needs for now; it
// holds no host write tags yet.
#include "util/StatusCode.h"

class J1Tag {
public:
    static J1Tag* GetInstance();
    StatusCode Initialize(bool clear) { (void)clear; return StatusCode::Success; }
    StatusCode LoadDiskPack() { return StatusCode::Success; }
    StatusCode UnloadDiskPack() { return StatusCode::Success; }

private:
    J1Tag() = default;
};
