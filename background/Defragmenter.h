#pragma once
// Defragmenter: the least the start-up and pack load sequence needs for now; it
// moves no clusters yet.
#include "util/StatusCode.h"

class Defragmenter {
public:
    static Defragmenter* GetInstance();
    StatusCode Initialize() { return StatusCode::Success; }
    StatusCode LoadDiskPack() { return StatusCode::Success; }
    StatusCode UnloadDiskPack() { return StatusCode::Success; }

private:
    Defragmenter() = default;
};
