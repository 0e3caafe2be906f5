#pragma once
// TargetLunTable: the LUN state the system pushes down to the target driver
// through its board calls: how many LUNs there are and the last LBA of each,
// whether the transport is enabled, whether the media are accessible, and
// the serial number reported to hosts. The protocol threads read it on every
// command, so the per-LUN values are atomics; the serial number is the only
// field behind the lock.
//
// Invariant: a LUN at or above the LUN count is absent, whatever its last
// LBA says; a LUN with no last LBA set is absent.
//
// Changes hosts must be told of are counted: the inventory generation rises
// when a LUN appears or disappears, a LUN's capacity generation when its
// last LBA changes. Each session compares them with what it saw last and
// reports REPORTED LUNS DATA HAS CHANGED or CAPACITY DATA HAS CHANGED once.
#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "util/StatusCode.h"

class TargetLunTable {
public:
    static constexpr uint32_t kMaxLuns = 32;
    static constexpr uint64_t kAbsent = ~uint64_t(0);

    static TargetLunTable& GetInstance();

    void setLunCount(uint32_t count);
    uint32_t lunCount() const { return mLunCount.load(std::memory_order_acquire); }
    StatusCode setLastLba(uint32_t lun, uint64_t lastLba);
    void removeLun(uint32_t lun);
    bool lunPresent(uint32_t lun) const;
    // kAbsent for an absent LUN.
    uint64_t lastLba(uint32_t lun) const;
    uint64_t inventoryGeneration() const { return mInventoryGen.load(std::memory_order_acquire); }
    uint64_t capacityGeneration(uint32_t lun) const {
        return lun < kMaxLuns ? mCapacityGen[lun].load(std::memory_order_acquire) : 0;
    }

    void setTransportEnabled(bool on) { mTransportEnabled.store(on); }
    bool transportEnabled() const { return mTransportEnabled.load(); }
    void setMediaAccess(bool on) { mMediaOn.store(on); }
    bool mediaAccess() const { return mMediaOn.load(); }

    void setSerialNumber(const std::string& serial);
    std::string serialNumber() const;

    // The board calls that carry this state (set the LUN count, enable
    // state, set a LUN's last LBA): decodes their words as the system passes
    // them. Returns 0 on success, -1 for a call it does not own or bad words.
    int applyBoardCall(unsigned number, intptr_t a0, intptr_t a1, intptr_t a2);

    // Back to the state at power-on (tests).
    void reset();

private:
    TargetLunTable() { reset(); }
    std::atomic<uint32_t> mLunCount{0};
    std::array<std::atomic<uint64_t>, kMaxLuns> mLastLba{};
    std::atomic<uint64_t> mInventoryGen{0};
    std::array<std::atomic<uint64_t>, kMaxLuns> mCapacityGen{};
    std::atomic<bool> mTransportEnabled{false};
    std::atomic<bool> mMediaOn{false};
    mutable std::mutex mLock;
    std::string mSerial;
};
