#include "system/nvram.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "platform/board/Board.h"
#include "platform/board/BoardServices.h"
#include "util/Assert.h"
#include "util/Trace.h"

namespace {
struct PartitionEntry {
    uint32_t id;
    uint32_t size;
};
// npi: per region, the partitions in the order they are laid out.
const PartitionEntry kPartitionTable[nvram::kMaxRegions][nvram::kMaxPartitions] = {
    {{nvram::kJ1ReplayTagCache, 0x900200}, {nvram::kJ1Tags, 0x80200}, {0, 0}, {0, 0}},
    {{nvram::kJ2, 0x384200}, {0, 0}, {0, 0}, {0, 0}},
    {},
    {},
};
const char* const kRegionNames[2] = {"/nvramDRAMSim", "/nvramPSRAM"};
const size_t kRegionSizes[2] = {nvram::kRegion0Size, nvram::kRegion1Size};

uint32_t firstWord(const unsigned char* p) {
    uint32_t w;
    std::memcpy(&w, p, 4);
    return w;
}

void consolef(const char* format, unsigned long a, unsigned long b = 0, unsigned long c = 0) {
    char text[256];
    std::snprintf(text, sizeof text, format, a, b, c);
    ESA_CONSOLE(text);
}
}  // namespace

nvram* nvram::GetInstance() {
    static nvram instance;
    return &instance;
}

StatusCode nvram::NVRAMInitialize() {
    Board& board = Board::GetInstance();
    for (unsigned r = 0; r < 2; ++r) {
        size_t actual = 0;
        void* base = board.openRegion(kRegionNames[r], kRegionSizes[r], &actual);
        if (!base) {
            ESA_CONSOLE("NVRAM Initialize: can't open " << kRegionNames[r]);
            return StatusCode::InitFailed;
        }
        mRegion[r].start = static_cast<unsigned char*>(base);
        mRegion[r].size = actual;
    }
    return StatusCode::Success;
}

StatusCode nvram::Initialize(bool clear) {
    StatusCode s = NVRAMInitialize();
    if (s != StatusCode::Success) return s;
    mNumRegions = 0;
    for (unsigned r = 0; r < kMaxRegions; ++r) {
        Region& region = mRegion[r];
        if (!region.start) continue;
        ++mNumRegions;
        uint32_t sig = firstWord(region.start);
        if (clear) {
            consolef("Cleardisk invoked - NVRAM being cleared for region %lu\n", r);
            std::memset(region.start, 0, region.size);
            if (firstWord(region.start) != 0) {
                ESA_CONSOLE("NVRAM Initialize: ERROR: Clearing NVRAM FAILED - rebooting\n");
                reboot("Clearing NVRAM FAILED");
            }
            checkRangeForValue(region.start, region.size, 0);
            writeHeader(r);
        } else if (sig == kMagic) {
            continue;
        } else if (sig == kWipeWord) {
            checkRangeForValue(region.start, region.size, 0x55);
            consolef("NVRAM was wiped, initializing region %lu\n", r);
            writeHeader(r);
        } else {
            consolef("NVRAM not initialized or wiped for region %lu, got sig = 0x%lX, expected = 0x%lX\n", r, sig,
                     kMagic);
            writeHeader(r);
        }
    }
    return StatusCode::Success;
}

void nvram::writeHeader(unsigned r) {
    Region& region = mRegion[r];
    RegionHeader h;
    std::memset(&h, 0, sizeof h);
    h.version = kVersion;
    h.regionSize = uint32_t(region.size);
    uint32_t offset = kHeaderSize;
    for (unsigned p = 0; p < kMaxPartitions; ++p) {
        const PartitionEntry& e = kPartitionTable[r][p];
        if (e.id == 0) continue;
        uint32_t size = recordSize(e.size);
        ESA_ASSERT_OP(uint64_t(offset) + size, <=, region.size);
        h.partitions[p] = PartitionRecord{e.id, offset, size};
        offset += size;
    }
    // The magic word goes last, so a header cut short by a power loss is never taken as valid.
    std::memset(region.start, 0, kHeaderSize);
    std::memcpy(region.start + 4, reinterpret_cast<unsigned char*>(&h) + 4, kHeaderSize - 4);
    std::atomic_signal_fence(std::memory_order_seq_cst);  // the compiler keeps the magic last
    uint32_t magic = kMagic;
    std::memcpy(region.start, &magic, 4);
}

bool nvram::checkRangeForValue(const unsigned char* start, size_t size, unsigned char value) {
    for (size_t i = 0; i < size; ++i) {
        if (start[i] == value) continue;
        char text[160];
        std::snprintf(text, sizeof text, "NVRAM: detected NVRAM wipe failure at 0x%lx read [%u] expected %u",
                      (unsigned long)(uintptr_t)(start + i), unsigned(start[i]), unsigned(value));
        ESA_CONSOLE(text);
        return false;
    }
    return true;
}

StatusCode nvram::WipeNvram() {
    StatusCode s = NVRAMInitialize();
    if (s != StatusCode::Success) return s;
    for (unsigned r = 0; r < kMaxRegions; ++r) {
        Region& region = mRegion[r];
        if (!region.start) continue;
        std::memset(region.start, 0, region.size);
        if (firstWord(region.start) != 0) reboot("Wiping NVRAM FAILED");
    }
    return StatusCode::Success;
}

const nvram::PartitionRecord* nvram::findPartition(uint32_t id, unsigned char*& regionStart) {
    for (unsigned r = 0; r < kMaxRegions; ++r) {
        Region& region = mRegion[r];
        if (!region.start || firstWord(region.start) != kMagic) continue;
        const RegionHeader* h = reinterpret_cast<const RegionHeader*>(region.start);
        for (const PartitionRecord& p : h->partitions) {
            if (p.id != id || p.id == 0) continue;
            if (uint64_t(p.offset) + p.size > region.size) return nullptr;  // a header that lies
            regionStart = region.start;
            return &p;
        }
    }
    return nullptr;
}

void* nvram::GetBuffer(uint32_t id) {
    unsigned char* start = nullptr;
    const PartitionRecord* p = findPartition(id, start);
    return p ? start + p->offset : nullptr;
}

uint32_t nvram::GetBufferSize(uint32_t id) {
    unsigned char* start = nullptr;
    const PartitionRecord* p = findPartition(id, start);
    return p ? p->size : 0;
}

void nvram::reboot(const char* reason) {
    boardSyscall(BoardSyscall::WriteRebootReason, intptr_t(reason));
    Board::GetInstance().restart(reason);
}
