#pragma once
// DriverRegions: the named shared regions of the host data path as the
// target driver and the system both see them: the rings in "/usbCmdResp",
// the InterCoreSGL pool "/SGLD", the journal memory "/SHJ1" that write data
// are received into, and "/readbuffer" that read data are sent from. Opened
// through the board, so both sides of one process get the same memory.
#include <cstddef>
#include <cstdint>

#include "platform/target/TargetDriverRecords.h"
#include "util/StatusCode.h"

struct DriverRegions {
    td::CommandRing* multiCommands = nullptr;
    td::ResponseRing* multiResponses = nullptr;
    uint8_t* usbSgList = nullptr;  // "/usbSgList": a count, then (length, offset) pairs
    static constexpr uint32_t kUsbSgPairs = 1024;
    uint8_t* sgld = nullptr;
    uint32_t sglCount = 0;
    uint8_t* journal = nullptr;   // "/SHJ1"
    size_t journalSize = 0;
    uint8_t* readBuffer = nullptr;  // "/readbuffer"
    size_t readBufferSize = 0;
    bool privatePools = false;

    // Opens (creating on first use) the regions with the given sizes and
    // empties the rings.
    StatusCode open(size_t journalBytes, size_t readBufferBytes, uint32_t sgls);
    // The same, but the two data pools are this process's own memory on huge
    // pages instead of board regions: what a memory-backed stand-in for the
    // system uses, where the pools hold whole LUNs and the board's shared
    // mappings would cost a TLB miss every few KiB of every transfer. Offsets
    // and pool ids are the same either way. Freed by closePrivatePools().
    StatusCode openWithPrivatePools(size_t journalBytes, size_t readBufferBytes, uint32_t sgls);
    void closePrivatePools();

    td::InterCoreSgl* sgl(uint32_t offset) const { return reinterpret_cast<td::InterCoreSgl*>(sgld + offset); }
    // The memory an SGL element names, or null when it lies outside its pool.
    const uint8_t* element(const td::SglElement& e) const;
};
