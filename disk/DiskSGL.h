#pragma once
// DiskSGL: a scatter list in the exact memory layout of a drive command: the
// pool link, the 36-byte command block, then up to 256 entries of
// { sectors, address }. The entry count stands in the block. Storage is
// 32-byte aligned. Until the object pools exist, lists come from the heap
// through Allocate/Free, the only two places that will change.
#include <cstdint>

#include "platform/drive/DriveCommand.h"

struct alignas(32) DiskSGL {
    DiskSGL() { command.block = DriveCommandBlock{}; }  // the entries are written as they are appended
    DiskSGL* poolLink = nullptr;
    DriveCommand command;

    static DiskSGL* Allocate();
    static void Free(DiskSGL* list);

    uint32_t entries() const { return command.block.entryCount; }
    bool full() const { return command.block.entryCount == kDriveMaxScatterEntries; }
    void clear() { command.block.entryCount = 0; }
    // Appends one piece of memory; false when the list already holds 256.
    bool append(void* address, uint32_t bytes) {
        if (full()) return false;
        DriveScatterEntry& e = command.entries[command.block.entryCount++];
        e.sectors = bytes / kSectorSize;
        e.address = uint64_t(uintptr_t(address));
        return true;
    }
    uint32_t sectors() const {
        uint32_t n = 0;
        for (uint32_t i = 0; i < command.block.entryCount; ++i) n += command.entries[i].sectors;
        return n;
    }
};

// One contiguous piece of the memory of a transfer. A DataWindow hands its
// memory over as a list of these, in window order, without a copy.
struct DiskPane {
    void* address;
    uint32_t length;  // bytes, a multiple of 512
};
