#pragma once
// CATManager: where host LBAs meet the disk.
//
// STAND-IN, NOT THE MAP: the two entry points the host path's read and write
// threads call, ReadData and WriteData, keep the written sectors in process
// memory per LUN (lost at a restart), and an unwritten sector reads as zeros.
// No clusters, no Zones, no journal. The LUN map replaces this whole class.
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "include/ManagerStandIn.h"

class ClientRequest;

class CATManager : public ManagerStandIn {
public:
    static CATManager* GetInstance();

    // Reads the request's range into a window of its own (request.window);
    // the status goes to the request as well. CATM_LBAOutOfRange past the
    // LUN's end, NoMoreLuns for a LUN that does not exist.
    StatusCode ReadData(ClientRequest& request);
    // Writes request.window (len sectors) at the request's range. The bool is
    // the check-only form of the real path; the stand-in ignores it.
    StatusCode WriteData(ClientRequest& request, bool checkOnly);

    // Stand-in only: forgets every sector of `lun` (LUN deletion).
    void forgetLun(uint32_t lun);

private:
    CATManager() = default;
    StatusCode checkRange(const ClientRequest& request);

    static constexpr uint32_t kClusterBytes = 4096;
    std::mutex mLock;  // guards mData
    // lun -> cluster index -> 4 KiB
    std::unordered_map<uint32_t, std::unordered_map<uint64_t, std::vector<unsigned char>>> mData;
};
