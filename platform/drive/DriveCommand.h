#pragma once
// The drive driver's command interface on "/sataAD" (A adapter, D drive): every
// command is ioctl(fd, kDriveIoctl, block) with the block below, the driver's
// opcodes and its status numbers, and the 12-byte hot-plug message posted on
// "/PNPMQ0". This is the contract between the drive adapter functions of the
// disk layer and the driver; both sides include it.
//
// On this 64-bit host a memory address is 8 bytes: a scatter entry is
// { u32 sectors, u64 address } packed (12 bytes), and the single data buffer of
// IDENTIFY and SMART READ DATA travels as the address of scatter entry 0.
// Slot power (0x15) is a controller command sent on "/sata00"; the slot it
// switches is in the LBA field, since an unpowered slot has no device to open.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

constexpr unsigned long kDriveIoctl = 0x28;
constexpr unsigned kDriveMaxScatterEntries = 256;
constexpr unsigned kDriveAdapters = 2;
constexpr unsigned kDrivesPerAdapter = 4;
constexpr unsigned kDriveSlots = kDriveAdapters * kDrivesPerAdapter;
constexpr unsigned kSectorSize = 512;

namespace DriveOp {
constexpr uint32_t GetSize = 2, UsageBitmap = 4, Present = 5, Reset = 6, Identify = 8, FlushCache = 9,
                   ReadSGL = 10, WriteSGL = 11, SpinUp = 0xd, SpinDown = 0xe, SmartOps = 0x10,
                   SmartStatus = 0x11, SmartAttributes = 0x14, SlotPower = 0x15, Probe = 0x16,
                   ControllerConfig = 0x17;
}

// Driver statuses: the numbering is the driver's and fixed.
namespace DriveStatus {
constexpr uint32_t Success = 0, None = 1, MediaError = 2, ChannelFailed = 3, RecoveredChannel = 4,
                   ChannelTimeout = 5, AccessTimeout = 6, NotPresent = 7, RecoveredError = 8, AdapterError = 9,
                   BadParams = 10, BadLba = 11, BadAlignment = 12, BadAddress = 13, StartFailure = 14;
}

#pragma pack(push, 1)
struct DriveScatterEntry {
    uint32_t sectors;
    uint64_t address;
};
struct DriveCommandBlock {
    uint32_t opcode;      // 0
    uint64_t lba;         // 4; reply of GetSize: size in sectors
    uint32_t count;       // 12: sectors, or a parameter (SMART on/off)
    uint32_t adapters;    // 16: reply of ControllerConfig
    uint32_t param;       // 20: drive count (0x17), present flag (5), on/off (0x15)
    uint32_t status;      // 24: driver status on return
    uint32_t timeout;     // 28: seconds; ControllerConfig: first per-adapter drive count
    uint32_t entryCount;  // 32: scatter entries; UsageBitmap: first per-adapter bitmap
};
// The whole command as the driver reads it: the block and its scatter list.
struct DriveCommand {
    DriveCommandBlock block;
    DriveScatterEntry entries[kDriveMaxScatterEntries];

    // Per-adapter words that run on from offsets 28 and 32 into the list.
    uint32_t wordAt(size_t offset) const {
        uint32_t v;
        std::memcpy(&v, reinterpret_cast<const uint8_t*>(this) + offset, 4);
        return v;
    }
    void setWordAt(size_t offset, uint32_t v) { std::memcpy(reinterpret_cast<uint8_t*>(this) + offset, &v, 4); }
};
// A hot-plug message on "/PNPMQ0".
struct HotPlugMessage {
    uint32_t event;
    uint32_t adapterId;
    uint32_t driveId;
};
// The slot power record of system call 0x1a55.
struct SlotPowerRecord {
    uint32_t diskDetected;  // bit n: a disk sits in slot n
    uint32_t slotPowered;   // bit n: slot n has power
};
#pragma pack(pop)
static_assert(sizeof(DriveScatterEntry) == 12);
static_assert(sizeof(DriveCommandBlock) == 36);
static_assert(offsetof(DriveCommandBlock, status) == 24);
static_assert(sizeof(HotPlugMessage) == 12);
static_assert(sizeof(SlotPowerRecord) == 8);

namespace HotPlugEvent {
constexpr uint32_t Inserted = 0, Removed = 1, TemperatureAlert = 2, PowerSwitch = 3, DiskChangeDetected = 4,
                   StartFailure = 5, AdapterFailure = 6;
}

inline const char* kHotPlugQueueName = "/PNPMQ0";
constexpr int kHotPlugQueueDepth = 128;

// "/sata00" with its two digits replaced by adapter and drive numbers.
inline std::string driveDeviceName(unsigned adapter, unsigned drive) {
    std::string name = "/sata00";
    name[5] = char('0' + adapter);
    name[6] = char('0' + drive);
    return name;
}
