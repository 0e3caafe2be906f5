#pragma once
// WriteJournal: the least the start-up and pack load sequence needs for now; it
// journals no host writes yet.
#include "util/StatusCode.h"

class WriteJournal {
public:
    static WriteJournal* GetInstance();
    StatusCode Initialize() { return StatusCode::Success; }
    StatusCode LoadDiskPack() { return StatusCode::Success; }
    StatusCode LoadDiskPack2() { return StatusCode::Success; }
    StatusCode UnloadDiskPack() { return StatusCode::Success; }

private:
    WriteJournal() = default;
};
