#pragma once
// DiskPackManager: decides at power-on which pack to load from the DIS records
// on the disks, makes a new pack from blank disks, and maps logical disks (LD,
// 0 to 23, kept for the life of the pack) to physical slots and back. Every
// I/O by LD (Region metadata, Region data) goes through it.
//
// For now it is the least the Region layer needs: no DIS, no discovery; the
// disk ready in slot n stands as LD n, with its full capacity.
#include <cstdint>
#include <string>

#include "disk/DiskPackId.h"
#include "include/IORequest.h"
#include "include/ManagerStandIn.h"
#include "util/DataWindow.h"
#include "util/IOTracker.h"

class DiskPackManager : public ManagerStandIn {
public:
    static constexpr unsigned maxLogicalDisks = 24;
    static constexpr uint16_t kUnknownSlot = 99;

    static DiskPackManager* GetInstance();
    // Chooses a pack and, when one is viable, loads it through the second stage.
    StatusCode doColdStart(bool clearDisk);
    void diskPackLoadStatus(StatusCode status) { mLoadStatus = status; }
    StatusCode loadStatus() const { return mLoadStatus; }
    unsigned availableDiskCount() const { return 0; }
    bool packLoaded() const { return mLoadStatus == StatusCode::Success; }

    // The pack's identity (zero while no pack is chosen).
    DiskPackId packId() const { return mPackId; }

    // LD and slot. DiskNotPresent when the LD has no disk present.
    StatusCode getSlotNum(uint16_t ld, uint16_t& slot);
    StatusCode getLdNum(uint16_t slot, uint16_t& ld);
    // Bitmap of the LDs present now (bit n = LD n).
    uint32_t presentLogicalDisks();
    bool isPresent(uint16_t ld);
    // Capacity of the LD's disk in sectors, taken as 32 bits.
    StatusCode getCapacity(uint16_t ld, uint32_t& sectors);

    // The DIS ranges that the Region layer keeps its allocations clear of.
    unsigned getDPMMetaDataCount() const { return 3; }
    StatusCode getDPMMetaDataLBA(uint16_t ld, unsigned copy, uint32_t& sectors, uint32_t& lba);
    // Records where the LD's two Region metadata copies now lie (in its DIS).
    StatusCode updateRMLBA(IOTracker& tracker, uint16_t ld, uint32_t lba0, uint32_t lba1);
    // Throws the LD out of the pack with the reason shown in its DIS.
    StatusCode expungeLogicalDisk(uint16_t ld, const char* reason);

    // I/O by LD and sector. The window's length says how much.
    StatusCode readData(uint16_t ld, DataWindow& window, uint32_t lba, IOTracker& tracker);
    StatusCode writeData(uint16_t ld, DataWindow& window, uint32_t lba, IOTracker& tracker);
    // Parallel batches: fills each element's slot and status; DiskNotPresent
    // for an element whose LD is gone. The result is the first failure.
    StatusCode readDataParallel(_IORequest* requests, unsigned count, IOTracker& tracker);
    StatusCode writeDataParallel(_IORequest* requests, unsigned count, IOTracker& tracker);
    StatusCode flush(uint16_t ld);

private:
    DiskPackManager() = default;
    StatusCode parallel(bool write, _IORequest* requests, unsigned count, IOTracker& tracker);
    StatusCode mLoadStatus = StatusCode::DiskPackNotLoaded;
    DiskPackId mPackId;
};
