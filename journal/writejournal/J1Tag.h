#pragma once
// J1Tag: the least the start-up, the pack load and the host path need for
// now; it holds no host write tags yet. With no tags, J1 is always empty:
// WaitForJ1Empty only flushes the disks' own caches, which is what makes the
// writes acknowledged so far durable.
#include "util/StatusCode.h"

class J1Tag {
public:
    static J1Tag* GetInstance();
    StatusCode Initialize(bool clear) { (void)clear; return StatusCode::Success; }
    StatusCode LoadDiskPack() { return StatusCode::Success; }
    StatusCode UnloadDiskPack() { return StatusCode::Success; }
    // Flushes the write caches of every disk of the pack.
    StatusCode FlushDisks();
    // Waits until every journalled host write is on the disks, then flushes them.
    StatusCode WaitForJ1Empty() { return FlushDisks(); }

private:
    J1Tag() = default;
};
