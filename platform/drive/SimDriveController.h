#pragma once
// SimDriveController: the drive driver behind the "/sataAD" devices: two
// adapters of four drive positions, slot = adapter * 4 + drive. It owns the
// disks in the slots (slots/N.img + slots/N.json of the board directory, found
// on first use), slot power, each drive's spin state, and the hot-plug
// messages it posts on "/PNPMQ0" (12 bytes, at most 128 waiting; a message
// that finds the queue full is dropped, as the kernel drops it).
//
// Invariants: a slot never has two reads or writes in flight (a fatal
// assertion: the disk queue above serialises them); a command that waits (a
// timeout or an injected latency) waits on the board clock and ends early,
// with "not present", when its disk is pulled or loses power. A device
// descriptor is bound to the disk and power cycle it was opened on.
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/drive/DiskFault.h"
#include "platform/drive/DriveCommand.h"
#include "platform/drive/SimDisk.h"

class SimDriveController {
public:
    static SimDriveController& GetInstance();

    // The driver's device interface.
    int openDevice(const std::string& name);
    int closeDevice(int fd);
    int ioctl(int fd, unsigned long request, DriveCommand* command);
    bool descriptorValid(int fd);
    // System call 0x1a55: which slots hold a disk and which have power.
    SlotPowerRecord slotPowerRecord();

    // Board actions (esa-board, console, tests).
    bool insertDisk(unsigned slot, const std::string& sizeOrFile, std::string& message);
    bool pullDisk(unsigned slot, std::string& message);  // message: where the disk's files went
    bool addFault(unsigned slot, const DiskFault& fault, std::string& error);
    bool clearFaults(unsigned slot, std::string& error);
    bool addBadSector(unsigned slot, uint64_t lba, std::string& error);
    void setWriteThrough(bool on);
    // The drives' cache behaviour (ESA_DRIVE_CACHE, default random) and the
    // seed of their write-back (ESA_DRIVE_SEED, else one drawn and printed at
    // the first use); each disk's generator is seeded from it, its slot and
    // the number of disks opened before it, so a run replays from the seed.
    // `writeBack` off keeps the random mode's background write-back stopped.
    void setCacheMode(DriveCacheMode mode, bool writeBack = true);
    DriveCacheMode cacheMode();
    bool writeBackOn();
    void setDriveSeed(uint64_t seed);
    uint64_t driveSeed();
    // "drive cache random, ESA_DRIVE_SEED=N": printed at start, so that a
    // failing run can be replayed.
    std::string cacheSettings();
    bool diskPresent(unsigned slot);
    bool slotPowered(unsigned slot);
    int readsAndWritesInFlight(unsigned slot);
    nlohmann::json describe();
    // The disk object in a slot (tests, benchmarks); null when empty.
    std::shared_ptr<SimDisk> disk(unsigned slot);

    // Power cut: every drive cache is lost. Forget: the board is read again
    // from its directory at the next use, as after a restart.
    void powerCut();
    void forget();

private:
    SimDriveController() = default;
    struct Slot {
        std::shared_ptr<SimDisk> disk;
        bool powered = true;
        bool spinning = true;
        uint64_t generation = 1;  // moves on every pull, insert and power change
        int ioInFlight = 0;
    };
    struct Descriptor {
        unsigned slot;
        uint64_t generation;  // 0: the controller node opened on an empty slot
    };

    void scanLocked();
    void readCacheSettingsLocked();
    std::string cacheSettingsLineLocked();
    void configureDiskLocked(SimDisk& disk, unsigned slot);
    std::filesystem::path slotBase(unsigned slot) const;
    void postHotPlug(uint32_t event, unsigned slot);
    void setSlotPowerLocked(unsigned slot, bool on);
    void pullLocked(unsigned slot);
    uint32_t execute(unsigned slot, uint64_t generation, DriveCommand* c);
    uint32_t executeMedia(unsigned slot, uint64_t generation, std::shared_ptr<SimDisk> disk, DriveCommand* c);
    // Waits on the board clock; false when the disk left or lost power meanwhile.
    bool waitBoardTime(std::unique_lock<std::mutex>& lock, unsigned slot, uint64_t generation, uint64_t ns);
    uint8_t slotTemperature(unsigned slot);

    std::mutex mLock;
    std::condition_variable mWake;
    bool mScanned = false;
    bool mWriteThrough = false;
    bool mCacheSettingsRead = false;
    DriveCacheMode mCacheMode = DriveCacheMode::Random;
    bool mWriteBack = true;
    uint64_t mSeed = 0;
    bool mSeedDrawn = false;
    uint64_t mDisksOpened = 0;
    Slot mSlots[kDriveSlots];
    std::map<int, Descriptor> mDescriptors;
    int mNextFd = 3000;
};

// The driver as the system reaches it: open a device by name, send commands.
int driveOpen(const char* device);
int driveClose(int fd);
int driveIoctl(int fd, unsigned long request, DriveCommand* command);
bool driveDescriptorValid(int fd);
// System call 0x1a55, the slot power record; recorded in the board log.
int driveSlotPowerSyscall(SlotPowerRecord* record);
