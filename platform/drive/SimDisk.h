#pragma once
// SimDisk: one simulated SATA disk, a sparse image file NAME.img and a sidecar
// NAME.json (identity: model 40, firmware 8, serial 20 bytes; capacity in
// sectors; SMART values; the persistent bad-sector map; counters; armed
// faults). The two files are the disk: moving them moves the disk.
//
// It owns the drive's volatile write cache (DriveWriteCache: written sectors
// sit in memory, reads see them) and, in the cache's random mode, the drive's
// write-back thread, which puts cached sectors on the image in random runs at
// random pauses, as a drive does between flushes. A power loss (pull, slot
// power off) lands a random subset of what is still cached and drops the
// rest; the death of the process leaves what the write-back had done. A
// sector is written to the image whole or not at all (pwrite of whole
// sectors), so a power cut never tears one sector; a multi-sector write may
// be torn. After a board power cut nothing more reaches the image. Thread-
// safe: one mutex guards the cache, the image and the sidecar values.
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/drive/DiskFault.h"
#include "platform/drive/DriveWriteCache.h"
#include "platform/drive/DriveCommand.h"

class SimDisk {
public:
    struct Identity {
        std::string model, firmware, serial;
    };
    // The largest capacity the image may have: 2^32 sectors plus the 1 GiB
    // the qualification admits above that, and a margin to test the refusal.
    static constexpr uint64_t kMaxSectors = 0x100400000ull;

    // Creates NAME.img (sparse) and NAME.json; identity fields left empty are generated.
    static bool create(const std::filesystem::path& base, uint64_t sectors, Identity identity, std::string& error);
    static std::unique_ptr<SimDisk> open(const std::filesystem::path& base, std::string& error);
    // Reads the sidecar alone (esa-board list, fault edits).
    static std::optional<nlohmann::json> readSidecar(const std::filesystem::path& base);
    static bool writeSidecar(const std::filesystem::path& base, const nlohmann::json& j);
    // Parses "64G", "512M", "1T", "1000s" (sectors) or a byte count.
    static bool parseSize(const std::string& text, uint64_t& sectors);

    ~SimDisk();
    SimDisk(const SimDisk&) = delete;
    SimDisk& operator=(const SimDisk&) = delete;

    const std::filesystem::path& base() const { return mBase; }
    const Identity& identity() const { return mIdentity; }
    uint64_t sectors() const { return mSectors; }

    // Media access; returns a driver status (Success, MediaError, BadLba, BadAddress).
    uint32_t read(uint64_t lba, const DriveScatterEntry* entries, uint32_t count, uint32_t sectors);
    uint32_t write(uint64_t lba, const DriveScatterEntry* entries, uint32_t count, uint32_t sectors);
    void flushCache();     // writes the cache to the image
    void loseCache();      // power loss: random mode lands a random subset of the cache first
    size_t cachedSectors();
    void setWriteThrough(bool on);
    // The cache's behaviour and its generator's seed; `writeBack` starts the
    // background write-back of the random mode (off: the cache moves only when
    // full, at a flush and at a power loss, which replays exactly).
    void setCacheMode(DriveCacheMode mode, uint64_t seed, bool writeBack);
    DriveCacheMode cacheMode();
    // Random mode: one run of cached sectors to the image, as the write-back thread does.
    bool writeBackSome();
    bool writeThrough() const { return mWriteThrough; }

    void identify(uint8_t out[512]);
    void smartData(uint8_t out[512], uint8_t temperature);

    // Faults. takeIoFault returns the first armed fault that matches and uses one firing.
    void addFault(const DiskFault& f);
    void clearFaults();
    std::vector<DiskFault> faults();
    std::optional<DiskFault> takeIoFault(bool write, uint64_t lba, uint64_t sectors);
    std::optional<DiskFault> takeFault(DiskFault::Kind kind);
    void addBadSector(uint64_t lba);

    void countSpinUp();
    void countPowerCycle();
    void saveSidecar();  // values and counters; the cache is not touched
    // Moves both files (the disk leaves its slot or enters one).
    bool moveTo(const std::filesystem::path& newBase, std::string& error);
    nlohmann::json describe();

private:
    SimDisk();
    bool pwriteAll(const uint8_t* data, size_t bytes, uint64_t offset);
    void stopWriteBack();
    void writeBackLoop();
    void saveSidecarLocked();
    std::optional<DiskFault> takeLocked(const std::function<bool(const DiskFault&)>& pred);

    std::filesystem::path mBase;
    int mFd = -1;
    Identity mIdentity;
    uint64_t mSectors = 0;
    nlohmann::json mSidecar;  // everything else in the sidecar, kept as read
    std::vector<uint64_t> mBadSectors;
    std::vector<DiskFault> mFaults;
    struct Counters {
        uint64_t reads = 0, writes = 0, sectorsRead = 0, sectorsWritten = 0, flushes = 0, spinUps = 0,
                 powerCycles = 0, reallocated = 0, readErrors = 0;
    } mCounters;
    bool mWriteThrough = false;
    std::mutex mLock;
    DriveWriteCache mCache;
    std::condition_variable mWriteBackWake;  // a write came, or the thread must stop
    bool mWriteBackStop = false;
    std::thread mWriteBack;
};
