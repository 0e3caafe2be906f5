#pragma once
// The drive adapter: plain functions that are the only callers of the drive
// driver. Each slot has a sata_device_map entry (descriptor, adapter id, drive
// id, index, device name); every function also works without a cached
// descriptor, opening the device for the one call. Results follow the
// driver's conventions: a driver status, or 0 / -1 where noted.
#include <cstdint>

#include "disk/DiskSGL.h"
#include "platform/drive/DriveCommand.h"

struct sata_device_map {
    int fd;
    int adapterId;
    int driveId;
    int index;
    char name[8];
};

constexpr int kMaxDriveSlots = 8;

int InitDrives();           // resets the table, returns the number of drives
int GetControllerConfig();  // fills the table, returns the number of drives
int OpenDrive(int slot);    // the cached descriptor, or -1
void CloseDrive(int slot);
int CheckDriveValid(int slot);  // the descriptor; negative: the device is gone
int MapToDriveNumber(int adapterId, int driveId, int* slot);
const sata_device_map& DriveMapEntry(int slot);

uint64_t GetDriveSize(int slot);   // sectors; 0 after 15 tries that all said 0
uint32_t GetDriveUsageBitmap();    // bit n: slot n has a drive
int CheckDrivePresent(int slot);   // 1 present, 0 not, -1 device cannot be opened
int ResetDrive(int slot);          // 0 or -1
uint32_t GetDriveFeatures(int slot, uint16_t features[6], uint32_t timeoutSeconds);  // words 82-87; status
uint32_t GetIdentityOfDrive(int slot, char model[41], char revision[9], char serial[21], uint32_t timeoutSeconds);
uint32_t FlushDriveWriteCache(int slot, uint32_t timeoutSeconds);
uint32_t ReadSGLDrive(int slot, DiskSGL* list, uint64_t lba, uint32_t sectors, uint32_t timeoutSeconds);
uint32_t WriteSGLDrive(int slot, DiskSGL* list, uint64_t lba, uint32_t sectors, uint32_t timeoutSeconds);
uint32_t ReadDrive(int slot, void* buffer, uint64_t lba, uint32_t sectors, uint32_t timeoutSeconds);
int WriteDrive(int slot, const void* buffer, uint64_t lba, uint32_t sectors, uint32_t timeoutSeconds);  // obsolete
uint32_t SetDrivePowerMode(int slot, uint32_t mode);  // 0xd spin up, 0xe spin down
int SetSMARTOps(int slot, bool on);                   // 0 or -1
int ReadSMARTStatus(int slot);                        // 0 or -1
uint32_t ReadSMARTAttributes(int slot, uint8_t buffer[512]);
uint32_t SlotPowerSwitch(int slot, bool on);
uint32_t probeAllDisks();
int ReadSlotPowerRecord(SlotPowerRecord* record);  // system call 0x1a55

// Hot-plug messages on "/PNPMQ0".
using HotPlugCallback = void (*)();
int SetupHotPlug(HotPlugCallback callback);  // 1 when a drained message was a temperature alert
int mvCheckHotPlug(HotPlugMessage* message);
void ShutdownHotPlug();
