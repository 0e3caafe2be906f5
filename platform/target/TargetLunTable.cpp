#include "platform/target/TargetLunTable.h"

#include <algorithm>
#include <cstring>

#include "platform/board/BoardServices.h"

TargetLunTable& TargetLunTable::GetInstance() {
    static TargetLunTable instance;
    return instance;
}

void TargetLunTable::reset() {
    mLunCount = 0;
    for (auto& l : mLastLba) l = kAbsent;
    mTransportEnabled = false;
    mMediaOn = false;
    std::lock_guard<std::mutex> g(mLock);
    mSerial = "ESA0000000001";
}

void TargetLunTable::setLunCount(uint32_t count) {
    uint32_t n = count > kMaxLuns ? kMaxLuns : count;
    uint32_t old = mLunCount.exchange(n, std::memory_order_acq_rel);
    if (old == n) return;
    // LUNs with a last LBA between the old and the new count appear or disappear.
    for (uint32_t lun = std::min(old, n); lun < std::max(old, n); ++lun) {
        if (mLastLba[lun].load() != kAbsent) {
            mInventoryGen.fetch_add(1, std::memory_order_acq_rel);
            break;
        }
    }
}

StatusCode TargetLunTable::setLastLba(uint32_t lun, uint64_t lastLba) {
    if (lun >= kMaxLuns) return StatusCode::NoMoreLuns;
    if (lastLba == kAbsent) return StatusCode::BadCommand;
    uint64_t old = mLastLba[lun].exchange(lastLba, std::memory_order_acq_rel);
    bool counted = lun < lunCount();
    if (old == kAbsent && counted) mInventoryGen.fetch_add(1, std::memory_order_acq_rel);
    else if (old != kAbsent && old != lastLba) mCapacityGen[lun].fetch_add(1, std::memory_order_acq_rel);
    return StatusCode::Success;
}

void TargetLunTable::removeLun(uint32_t lun) {
    if (lun >= kMaxLuns) return;
    uint64_t old = mLastLba[lun].exchange(kAbsent, std::memory_order_acq_rel);
    if (old != kAbsent && lun < lunCount()) mInventoryGen.fetch_add(1, std::memory_order_acq_rel);
}

bool TargetLunTable::lunPresent(uint32_t lun) const { return lastLba(lun) != kAbsent; }

uint64_t TargetLunTable::lastLba(uint32_t lun) const {
    if (lun >= kMaxLuns || lun >= lunCount()) return kAbsent;
    return mLastLba[lun].load(std::memory_order_acquire);
}

void TargetLunTable::setSerialNumber(const std::string& serial) {
    std::lock_guard<std::mutex> g(mLock);
    mSerial = serial;
}

std::string TargetLunTable::serialNumber() const {
    std::lock_guard<std::mutex> g(mLock);
    return mSerial;
}

int TargetLunTable::applyBoardCall(unsigned number, intptr_t a0, intptr_t a1, intptr_t a2) {
    switch (number) {
    case BoardSyscall::SetMaxLunCount:
        if (a0 < 0) return -1;
        setLunCount(uint32_t(a0));
        return 0;
    case BoardSyscall::SetLunLastLba: {
        // A 64-bit LBA travels as two 32-bit words, low first.
        uint64_t lba = uint64_t(uint32_t(a1)) | (uint64_t(uint32_t(a2)) << 32);
        if (lba == kAbsent) {
            if (a0 < 0 || a0 >= intptr_t(kMaxLuns)) return -1;
            removeLun(uint32_t(a0));
            return 0;
        }
        return setLastLba(uint32_t(a0), lba).ok() ? 0 : -1;
    }
    case BoardSyscall::RtpEnableState:
        switch (a0) {
        case 0: setTransportEnabled(true); return 0;
        case 1: setTransportEnabled(false); return 0;
        case 2:
            if (a1 == 0) return -1;
            setSerialNumber(std::string(reinterpret_cast<const char*>(a1),
                                        strnlen(reinterpret_cast<const char*>(a1), 255)));
            return 0;
        case 3: setMediaAccess(true); return 0;
        case 4: setMediaAccess(false); return 0;
        default: return -1;
        }
    default:
        return -1;
    }
}
