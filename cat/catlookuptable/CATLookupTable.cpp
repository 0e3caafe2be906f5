#include "cat/catlookuptable/CATLookupTable.h"

#include "cat/CATManager.h"

// STAND-IN: LUN records in memory only; see the header.

CATLookupTable* CATLookupTable::GetInstance() {
    static CATLookupTable instance;
    return &instance;
}

StatusCode CATLookupTable::createLun(uint32_t& lun, uint64_t maxLba, IOTracker& tracker) {
    (void)tracker;
    std::lock_guard<std::mutex> g(mLock);
    for (uint32_t i = 0; i < kMaxLuns; ++i) {
        if (mInUse[i]) continue;
        mInUse[i] = true;
        mLastLba[i] = maxLba;
        lun = i;
        return StatusCode::Success;
    }
    return StatusCode::NoMoreLuns;
}

StatusCode CATLookupTable::deleteLun(uint32_t lun, uint16_t key) {
    (void)key;
    {
        std::lock_guard<std::mutex> g(mLock);
        if (lun >= kMaxLuns || !mInUse[lun]) return StatusCode::NoMoreLuns;
        mInUse[lun] = false;
        mLastLba[lun] = 0;
    }
    CATManager::GetInstance()->forgetLun(lun);
    return StatusCode::Success;
}

StatusCode CATLookupTable::getLunLastLba(uint32_t lun, uint64_t& lastLba) {
    std::lock_guard<std::mutex> g(mLock);
    if (lun >= kMaxLuns || !mInUse[lun]) return StatusCode::NoMoreLuns;
    lastLba = mLastLba[lun];
    return StatusCode::Success;
}

bool CATLookupTable::HasLunBeenUsed(uint32_t lun) {
    std::lock_guard<std::mutex> g(mLock);
    return lun < kMaxLuns && mInUse[lun];
}

StatusCode CATLookupTable::EnsureLUNsInit(uint32_t maxLun) {
    (void)maxLun;
    return StatusCode::Success;
}
