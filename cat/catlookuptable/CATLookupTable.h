#pragma once
// CATLookupTable: the map from a LUN's host LBA to its clusters.
//
// STAND-IN, NOT THE MAP: it keeps only the LUN records the host path needs
// (which LUNs exist and their last LBA), in process memory, so nothing
// survives a restart. The LUN map replaces this whole class.
#include <cstdint>
#include <mutex>

#include "include/ManagerStandIn.h"

class IOTracker;

class CATLookupTable : public ManagerStandIn {
public:
    static constexpr uint32_t kMaxLuns = 16;

    static CATLookupTable* GetInstance();

    // Takes the first free LUN record for a LUN whose last LBA is `maxLba`;
    // NoMoreLuns when every record is in use.
    StatusCode createLun(uint32_t& lun, uint64_t maxLba, IOTracker& tracker);
    // Frees the LUN's record and forgets its data. The key is unused here.
    StatusCode deleteLun(uint32_t lun, uint16_t key);
    // The last LBA of `lun`; NoMoreLuns when the LUN does not exist.
    StatusCode getLunLastLba(uint32_t lun, uint64_t& lastLba);
    bool HasLunBeenUsed(uint32_t lun);
    // Prepares the map of LUNs 0 to maxLun for host I/O (nothing to do here).
    StatusCode EnsureLUNsInit(uint32_t maxLun);
    uint32_t maxLuns() const { return kMaxLuns; }

private:
    CATLookupTable() = default;
    std::mutex mLock;
    uint64_t mLastLba[kMaxLuns] = {};
    bool mInUse[kMaxLuns] = {};
};
