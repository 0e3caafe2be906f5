#pragma once
// DiskUtilizationDaemon (DUD): how full the pack is. It owns the capacity
// figures (clusters: used, total, free, unprotected), the watermark status
// word posted with event 7 (`mFlags`: bit 0 low watermark passed, bit 1 high
// passed, bit 2 no redundancy margin), the two watermarks in hundredths of a
// percent, and the front panel capacity meter while `managingLEDs`.
//
// Invariants: the figures are zero while no pack is loaded; mFreeClusters
// never exceeds mTotalClusters; the low watermark stays below the high one.
//
// Not done yet: the host throttle and one-at-a-time mode as the pack fills
// (SetSlowMode: the mode is cleared at pack load and never set again),
// automatic LUN creation (CheckLun), and the periodic duties of the daemon's
// loop beyond recomputing capacity (cache flushes, temperature and SMART
// history, calendar feed).
#include <atomic>
#include <cstdint>
#include <mutex>
#include <ostream>

#include "include/ManagerBase.h"
#include "platform/rtos/Rtos.h"
#include "system/EventManager.h"

class DiskUtilizationDaemon : public ManagerBase {
public:
    static constexpr uint32_t kDefaultHighWatermark = 0x251C;  // 95.00%
    static constexpr uint32_t kDefaultLowWatermark = 0x2134;   // 85.00%
    static constexpr int kWakeSeconds = 5;
    enum : uint32_t { kLowWatermark = 1, kHighWatermark = 2, kNoRedundancyMargin = 4 };

    static DiskUtilizationDaemon* GetInstance();
    StatusCode Initialize() override;
    StatusCode LoadDiskPack() override;
    StatusCode UnloadDiskPack() override;

    // CalculateCapacity, SetLEDs on demand (force: write the meter even when
    // the host application holds it).
    void DUDUpdate(bool force);
    void WakeDUD();
    void CalculateCapacity();
    void SetLEDs(uint64_t used, bool force);

    // In bytes; InternalError before a pack is loaded. `reserved` is the
    // space of the SelfMirrored Zones (unprotected space).
    StatusCode GetArrayCapacityInfo(uint64_t& free, uint64_t& used, uint64_t& reserved);
    uint32_t watermarkStatus() const { return mFlags.load(); }
    uint32_t lowWatermark() const { return mLowWatermark.load(); }
    uint32_t highWatermark() const { return mHighWatermark.load(); }
    // Hundredths of a percent; false (nothing changed) when out of range or not low < high.
    bool setWatermarks(uint32_t low, uint32_t high);
    // One at a time, as the host application gives them (at most 10,000).
    void setLowWatermark(uint32_t low) { if (low <= 10000) { mLowWatermark = low; WakeDUD(); } }
    void setHighWatermark(uint32_t high) { if (high <= 10000) { mHighWatermark = high; WakeDUD(); } }
    // The capacity meter's last value in percent, -1 while off.
    int meterPercent() const { return mMeterPercent.load(); }

    // The host application: a used figure of its own, and the meter.
    void SetUsedCapacityHost(uint64_t bytes);
    void displayArrayCapacity();
    void StopManagingCapacityLEDs();
    bool managingLEDs() const { return mManagingLEDs.load(); }
    // Seconds since 1970 of the last management command: a host application is alive.
    std::atomic<uint32_t> mLastUICallTime{0};

    void PostEventCapacity() { WakeDUD(); }
    void Dump(std::ostream& out);

private:
    DiskUtilizationDaemon() = default;
    void dudLoop();
    static void DoRebuild(EVENT_TYPE type, void* context, unsigned long value, void*);
    uint64_t usedForMeter() const;

    std::mutex mDUD;  // "mDUD": the figures
    bool mStarted = false;
    SEM_ID mWake = nullptr;
    int mRegisterFd = -1;
    std::atomic<bool> mLoaded{false};
    uint64_t mUsedClusters = 0;
    uint64_t mTotalClusters = 0;
    uint64_t mFreeClusters = 0;
    uint64_t mUnprotectedClusters = 0;
    uint64_t mSelfMirroredZones = 0;
    uint32_t mClusterSize = 4096;
    uint64_t mZoneSize = 0;
    bool mSelfMirrored = false;
    bool mDegraded = false;
    uint64_t mUsedClustersHost = 0;
    std::atomic<bool> mUsingHostCapacity{false};
    std::atomic<bool> mManagingLEDs{true};
    std::atomic<uint32_t> mFlags{0};
    std::atomic<uint32_t> mHighWatermark{kDefaultHighWatermark};
    std::atomic<uint32_t> mLowWatermark{kDefaultLowWatermark};
    std::atomic<int> mMeterPercent{-1};
    unsigned long mScaleFactor = 1;
};
