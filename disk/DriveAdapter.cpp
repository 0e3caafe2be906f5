#include "disk/DriveAdapter.h"

#include "platform/board/BoardServices.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "platform/drive/SimDriveController.h"
#include "platform/rtos/Rtos.h"
#include "util/Trace.h"

namespace {

std::mutex gMapLock;
sata_device_map gMap[kMaxDriveSlots];
bool gMapReady = false;
MSG_Q_ID gHotPlugQ = nullptr;
HotPlugCallback gHotPlugCallback = nullptr;
uint64_t gLastCallbackTick = 0;

void resetMapLocked() {
    for (int i = 0; i < kMaxDriveSlots; ++i) {
        gMap[i].fd = -1;
        gMap[i].adapterId = -1;
        gMap[i].driveId = -1;
        gMap[i].index = i;
        std::snprintf(gMap[i].name, sizeof gMap[i].name, "/sata00");
    }
    gMapReady = true;
}

std::string deviceName(int slot) {
    std::lock_guard<std::mutex> g(gMapLock);
    if (!gMapReady) resetMapLocked();
    if (gMap[slot].adapterId < 0)  // before the controller was asked: the fixed wiring
        return driveDeviceName(unsigned(slot) / kDrivesPerAdapter, unsigned(slot) % kDrivesPerAdapter);
    return gMap[slot].name;
}

// Sends one command to the slot's device: through the cached descriptor, or
// through one opened for this call. Returns the driver status; NotPresent when
// the device cannot be opened.
uint32_t issue(int slot, DriveCommand& c, bool* opened = nullptr) {
    if (slot < 0 || slot >= kMaxDriveSlots) return DriveStatus::BadParams;
    int fd;
    {
        std::lock_guard<std::mutex> g(gMapLock);
        fd = gMapReady ? gMap[slot].fd : -1;
    }
    bool temporary = fd < 0;
    if (temporary) fd = driveOpen(deviceName(slot).c_str());
    if (opened) *opened = fd >= 0;
    if (fd < 0) return DriveStatus::NotPresent;
    c.block.status = 0;
    int rc = driveIoctl(fd, kDriveIoctl, &c);
    if (temporary) driveClose(fd);
    return rc < 0 ? DriveStatus::NotPresent : c.block.status;
}

uint32_t simple(int slot, uint32_t opcode, uint32_t param = 0, uint32_t timeout = 0) {
    DriveCommand c{};
    c.block.opcode = opcode;
    c.block.param = param;
    c.block.count = param;
    c.block.timeout = timeout;
    return issue(slot, c);
}

// IDENTIFY strings hold two characters a word, high byte first.
void swappedString(const uint8_t* identify, unsigned firstWord, unsigned bytes, char* out) {
    for (unsigned i = 0; i < bytes; ++i) out[i] = char(identify[firstWord * 2 + (i ^ 1)]);
    out[bytes] = '\0';
}

uint32_t sglCommand(int slot, uint32_t opcode, DiskSGL* list, uint64_t lba, uint32_t sectors, uint32_t timeout) {
    DriveCommand& c = list->command;
    c.block.opcode = opcode;
    c.block.lba = lba;
    c.block.count = sectors;
    c.block.timeout = timeout;
    return issue(slot, c);
}

}  // namespace

int InitDrives() {
    {
        std::lock_guard<std::mutex> g(gMapLock);
        for (int i = 0; i < kMaxDriveSlots; ++i)
            if (gMapReady && gMap[i].fd >= 0) driveClose(gMap[i].fd);
        resetMapLocked();
    }
    return GetControllerConfig();
}

int GetControllerConfig() {
    DriveCommand c{};
    c.block.opcode = DriveOp::ControllerConfig;
    int fd = driveOpen("/sata00");
    if (fd < 0) return 0;
    driveIoctl(fd, kDriveIoctl, &c);
    driveClose(fd);
    if (c.block.status != 0) return 0;
    std::lock_guard<std::mutex> g(gMapLock);
    if (!gMapReady) resetMapLocked();
    int slot = 0;
    for (uint32_t a = 0; a < c.block.adapters && a < 8; ++a) {
        uint32_t drives = c.wordAt(28 + 4 * a);
        for (uint32_t d = 0; d < drives && slot < kMaxDriveSlots; ++d, ++slot) {
            gMap[slot].adapterId = int(a);
            gMap[slot].driveId = int(d);
            std::snprintf(gMap[slot].name, sizeof gMap[slot].name, "%s", driveDeviceName(a, d).c_str());
        }
    }
    return int(c.block.param);
}

int OpenDrive(int slot) {
    if (slot < 0 || slot >= kMaxDriveSlots) return -1;
    std::string name = deviceName(slot);
    std::lock_guard<std::mutex> g(gMapLock);
    if (gMap[slot].fd >= 0) {
        if (driveDescriptorValid(gMap[slot].fd)) return gMap[slot].fd;
        driveClose(gMap[slot].fd);
    }
    gMap[slot].fd = driveOpen(name.c_str());
    return gMap[slot].fd;
}

void CloseDrive(int slot) {
    if (slot < 0 || slot >= kMaxDriveSlots) return;
    std::lock_guard<std::mutex> g(gMapLock);
    if (gMapReady && gMap[slot].fd >= 0) driveClose(gMap[slot].fd);
    if (gMapReady) gMap[slot].fd = -1;
}

int CheckDriveValid(int slot) {
    if (slot < 0 || slot >= kMaxDriveSlots) return -1;
    std::lock_guard<std::mutex> g(gMapLock);
    if (!gMapReady || gMap[slot].fd < 0) return -1;
    return driveDescriptorValid(gMap[slot].fd) ? gMap[slot].fd : -1;
}

int MapToDriveNumber(int adapterId, int driveId, int* slot) {
    {
        std::lock_guard<std::mutex> g(gMapLock);
        for (int i = 0; gMapReady && i < kMaxDriveSlots; ++i)
            if (gMap[i].adapterId == adapterId && gMap[i].driveId == driveId) {
                *slot = i;
                return 0;
            }
    }
    ESA_CONSOLE("MapToDriveNumber: mapping from adapterID " << adapterId << ", driveID " << driveId << " failed");
    return -1;
}

const sata_device_map& DriveMapEntry(int slot) {
    std::lock_guard<std::mutex> g(gMapLock);
    if (!gMapReady) resetMapLocked();
    return gMap[std::clamp(slot, 0, kMaxDriveSlots - 1)];
}

uint64_t GetDriveSize(int slot) {
    for (int attempt = 1; attempt <= 15; ++attempt) {
        DriveCommand c{};
        c.block.opcode = DriveOp::GetSize;
        if (issue(slot, c) == DriveStatus::Success && c.block.lba != 0) return c.block.lba;
        if (attempt == 10) {
            ESA_CONSOLE("drive " << slot << " always returning 0 size -resetting");
            ResetDrive(slot);
        }
        if (attempt < 15) taskDelay(sysClkRateGet());
    }
    return 0;
}

uint32_t GetDriveUsageBitmap() {
    DriveCommand c{};
    c.block.opcode = DriveOp::ControllerConfig;
    int fd = driveOpen("/sata00");
    if (fd < 0) return 0;
    driveIoctl(fd, kDriveIoctl, &c);
    DriveCommand u{};
    u.block.opcode = DriveOp::UsageBitmap;
    driveIoctl(fd, kDriveIoctl, &u);
    driveClose(fd);
    uint32_t bitmap = 0, shift = 0;
    for (uint32_t a = 0; a < c.block.adapters && a < 8; ++a) {
        bitmap |= u.wordAt(32 + 4 * a) << shift;
        shift += c.wordAt(28 + 4 * a);
    }
    return bitmap;
}

int CheckDrivePresent(int slot) {
    DriveCommand c{};
    c.block.opcode = DriveOp::Present;
    bool opened = false;
    issue(slot, c, &opened);
    if (!opened) return -1;
    return c.block.param ? 1 : 0;
}

int ResetDrive(int slot) { return simple(slot, DriveOp::Reset) == 0 ? 0 : -1; }

namespace {
// Reads the drive's 512-byte IDENTIFY data; 0 or the driver's status.
uint32_t readIdentify(int slot, uint8_t* identify, uint32_t timeoutSeconds) {
    DriveCommand c{};
    c.block.opcode = DriveOp::Identify;
    c.block.timeout = timeoutSeconds;
    c.block.entryCount = 1;
    c.entries[0] = {1, uint64_t(uintptr_t(identify))};
    return issue(slot, c);
}
}  // namespace

uint32_t GetDriveFeatures(int slot, uint16_t features[6], uint32_t timeoutSeconds) {
    alignas(32) uint8_t identify[512];
    uint32_t status = readIdentify(slot, identify, timeoutSeconds);
    if (status != 0) return status;
    for (int w = 0; w < 6; ++w) features[w] = uint16_t(identify[(82 + w) * 2] | identify[(82 + w) * 2 + 1] << 8);
    return 0;
}

uint32_t GetIdentityOfDrive(int slot, char model[41], char revision[9], char serial[21], uint32_t timeoutSeconds) {
    alignas(32) uint8_t identify[512];
    uint32_t status = readIdentify(slot, identify, timeoutSeconds);
    if (status != 0) return status;
    swappedString(identify, 10, 20, serial);
    swappedString(identify, 23, 8, revision);
    swappedString(identify, 27, 40, model);
    return 0;
}

uint32_t FlushDriveWriteCache(int slot, uint32_t timeoutSeconds) {
    return simple(slot, DriveOp::FlushCache, 0, timeoutSeconds);
}

uint32_t ReadSGLDrive(int slot, DiskSGL* list, uint64_t lba, uint32_t sectors, uint32_t timeoutSeconds) {
    return sglCommand(slot, DriveOp::ReadSGL, list, lba, sectors, timeoutSeconds);
}

uint32_t WriteSGLDrive(int slot, DiskSGL* list, uint64_t lba, uint32_t sectors, uint32_t timeoutSeconds) {
    return sglCommand(slot, DriveOp::WriteSGL, list, lba, sectors, timeoutSeconds);
}

uint32_t ReadDrive(int slot, void* buffer, uint64_t lba, uint32_t sectors, uint32_t timeoutSeconds) {
    DriveCommand c{};
    c.block.opcode = DriveOp::ReadSGL;
    c.block.lba = lba;
    c.block.count = sectors;
    c.block.timeout = timeoutSeconds;
    c.block.entryCount = 1;
    c.entries[0] = {sectors, uint64_t(uintptr_t(buffer))};
    return issue(slot, c);
}

int WriteDrive(int, const void*, uint64_t, uint32_t, uint32_t) {
    ESA_CONSOLE("*** OBSOLETE INTERFACE targetDrive.c/WriteDrive CALLED *** ");
    return -1;
}

uint32_t SetDrivePowerMode(int slot, uint32_t mode) { return simple(slot, mode); }

int SetSMARTOps(int slot, bool on) { return simple(slot, DriveOp::SmartOps, on ? 1 : 0) == 0 ? 0 : -1; }

int ReadSMARTStatus(int slot) { return simple(slot, DriveOp::SmartStatus) == 0 ? 0 : -1; }

uint32_t ReadSMARTAttributes(int slot, uint8_t buffer[512]) {
    DriveCommand c{};
    c.block.opcode = DriveOp::SmartAttributes;
    c.block.entryCount = 1;
    c.entries[0] = {1, uint64_t(uintptr_t(buffer))};
    return issue(slot, c);
}

uint32_t SlotPowerSwitch(int slot, bool on) {
    // Slot power is the controller's: it is reached through "/sata00" whether
    // or not the slot's own device exists.
    DriveCommand c{};
    c.block.opcode = DriveOp::SlotPower;
    c.block.param = on ? 1 : 0;
    int fd = driveOpen(deviceName(0).c_str());
    if (fd < 0) return DriveStatus::NotPresent;
    // The controller node addresses slot 0; the command names its slot in the LBA field.
    c.block.lba = uint64_t(slot);
    driveIoctl(fd, kDriveIoctl, &c);
    driveClose(fd);
    return c.block.status;
}

uint32_t probeAllDisks() { return simple(0, DriveOp::Probe); }

int ReadSlotPowerRecord(SlotPowerRecord* record) {
    return boardSyscall(BoardSyscall::SlotPower, intptr_t(record));
}

int SetupHotPlug(HotPlugCallback callback) {
    gHotPlugCallback = callback;
    gLastCallbackTick = tick64Get();
    gHotPlugQ = msgQOpen(kHotPlugQueueName, kHotPlugQueueDepth, sizeof(HotPlugMessage));
    int result = 0, number = 0;
    HotPlugMessage m{};
    while (msgQReceive(gHotPlugQ, &m, sizeof m, NO_WAIT) == int(sizeof m)) {
        ESA_CONSOLE("Draining message number " << number++ << " from HotPlug queue");
        if (m.event == HotPlugEvent::TemperatureAlert) result = 1;
    }
    return result;
}

int mvCheckHotPlug(HotPlugMessage* message) {
    for (;;) {
        int n = msgQReceive(gHotPlugQ, message, sizeof *message, 50);
        uint64_t now = tick64Get();
        bool due = n != int(sizeof *message) || now - gLastCallbackTick >= uint64_t(sysClkRateGet());
        if (due && gHotPlugCallback) {
            gLastCallbackTick = now;
            gHotPlugCallback();
        }
        if (n == int(sizeof *message)) return 0;
        if (rtosHalted()) taskDelay(1);
    }
}

void ShutdownHotPlug() { gHotPlugQ = nullptr; }
