#pragma once
// The kernel side of the appliance as the system calls it: numbered system
// calls of up to eight words, and devices opened by name and driven by ioctl.
// Every call is written to the board log. A result of 0 or more is success.
#include <cstdint>

namespace BoardSyscall {
constexpr unsigned SetMaxLunCount = 0x1a40;
constexpr unsigned RtpEnableState = 0x1a41;
constexpr unsigned Restart = 0x1a42;
constexpr unsigned SystemEventLog = 0x1a44;
constexpr unsigned ReturnWriteBuffer = 0x1a45;
constexpr unsigned TransportStateCmd = 0x1a47;
constexpr unsigned ReadSerialNumber = 0x1a48;
constexpr unsigned SetLunLastLba = 0x1a49;
constexpr unsigned WriteRebootReason = 0x1a4a;
constexpr unsigned ReadRebootReason = 0x1a4b;
constexpr unsigned BootedOnBattery = 0x1a4c;
constexpr unsigned HardwareXor = 0x1a4d;
constexpr unsigned HardwareXorWait = 0x1a50;
constexpr unsigned ReadPlatformId = 0x1a51;
constexpr unsigned ReadLabUnitFlag = 0x1a52;
constexpr unsigned SetHardwareClock = 0x1a53;
constexpr unsigned Pmu = 0x1a54;
constexpr unsigned SlotPower = 0x1a55;
}  // namespace BoardSyscall

namespace PmuOp {
constexpr long PowerOff = 0, DisksLowPower = 1, DisksFullPower = 2, ReadState = 3, ReadTemperatures = 4,
               ReadVersions = 5, ShutDown = 6;
}

// PMU records, as the board hands them over (host byte order).
#pragma pack(push, 1)
struct PmuStateRecord {
    uint32_t uptimeMinutes;
    uint8_t seconds;
    uint8_t hundredths;
    uint16_t activeCycles;
    uint32_t latestBatteryTime;   // tenths of a minute
    uint32_t longestBatteryTime;  // tenths of a minute
    uint32_t totalBatteryTime;    // tenths of a minute
    uint16_t backupCycles;
    uint16_t completedCycles;
    uint16_t failedCycles;
    uint16_t backupFlags;
    uint16_t powerCycles;
    uint16_t stateFlags;  // bit 0 battery failed, 1 DRAM valid, 2 depleted, 4 AC failure, 5 power switch; high byte state
};
struct PmuTemperatureRecord {
    uint8_t maximum;
    uint8_t average;
    uint8_t fanSpeed;
    uint8_t slots[8];
    uint8_t ambient[2];
    uint32_t samplingPeriod;
};
struct PmuVersionRecord {
    uint8_t currentMajor, currentMinor;
    uint16_t currentBuild;
    uint8_t desiredMajor, desiredMinor;
    uint16_t desiredBuild;
};
struct NetworkInfoRecord {
    uint32_t useDefault;
    uint32_t address;
    uint32_t subnet;
};
#pragma pack(pop)
static_assert(sizeof(PmuStateRecord) == 32);
static_assert(sizeof(PmuTemperatureRecord) == 17);
static_assert(sizeof(PmuVersionRecord) == 8);
static_assert(sizeof(NetworkInfoRecord) == 12);

namespace EsaRegisterIoctl {
constexpr unsigned long PowerLed = 0x2006;
constexpr unsigned long Timebase = 0x54440010;
constexpr unsigned long CapacityMeter = 0x54440014;
constexpr unsigned long DiskClearButton = 0x54440016;
constexpr unsigned long ResetBootCount = 0x54440017;
constexpr unsigned long CapacityMeterOff = 0x54440018;
constexpr unsigned long PsramBattery = 0x54440019;
constexpr unsigned long LedBar = 0x5444001a;
constexpr unsigned long DuplicateFlashImage = 0x5444001e;
constexpr unsigned long PowerSwitch = 0x54440020;
constexpr unsigned long SlotLeds = 0x54440021;
}  // namespace EsaRegisterIoctl

namespace NetworkInfoIoctl {
constexpr unsigned long Read = 1, WriteNow = 2, WriteAtStart = 4, EsxMode = 5;
}
namespace DiagLogIoctl {
constexpr unsigned long SetMode = 0x1000, LogOnly = 0x1001, LogAndConsole = 0x1002, Flush = 0x3000;
}

int boardSyscall(unsigned number, intptr_t a0 = 0, intptr_t a1 = 0, intptr_t a2 = 0, intptr_t a3 = 0,
                 intptr_t a4 = 0, intptr_t a5 = 0, intptr_t a6 = 0, intptr_t a7 = 0);

// Devices: "/ESA_REGISTER", "/networkinfo", "diagLog", "diagLog0".
int boardOpen(const char* device, int flags);
int boardIoctl(int fd, unsigned long request, intptr_t argument);
int boardClose(int fd);

// The diagnostics log device: once opened and made stdout and stderr, every
// line the process prints goes to diag.log in the board directory, and to the
// real console unless it was set to log only.
int diagLogDescriptor(int fd);  // the descriptor to dup2 onto stdout/stderr
void diagLogFlush();
