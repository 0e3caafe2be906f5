#include "cat/CATManager.h"

#include <algorithm>
#include <cstring>

#include "cat/catlookuptable/CATLookupTable.h"
#include "host/ClientRequest.h"

// STAND-IN: memory-backed sectors per LUN; see the header.

CATManager* CATManager::GetInstance() {
    static CATManager instance;
    return &instance;
}

StatusCode CATManager::checkRange(const ClientRequest& request) {
    uint64_t lastLba = 0;
    if (CATLookupTable::GetInstance()->getLunLastLba(request.lun, lastLba) != StatusCode::Success)
        return StatusCode::NoMoreLuns;
    if (request.lba > lastLba || uint64_t(request.len) > lastLba + 1 - request.lba) return StatusCode::CATM_LBAOutOfRange;
    return StatusCode::Success;
}

StatusCode CATManager::ReadData(ClientRequest& request) {
    StatusCode rc = checkRange(request);
    if (rc != StatusCode::Success) {
        request.status = rc;
        return rc;
    }
    uint32_t bytes = request.len * 512;
    DataWindow window(bytes, 0, bytes);
    {
        std::lock_guard<std::mutex> g(mLock);
        auto& lunData = mData[request.lun];
        uint64_t offset = request.lba * 512;
        uint32_t done = 0;
        std::vector<unsigned char> zeros(kClusterBytes, 0);
        while (done < bytes) {
            uint64_t pos = offset + done;
            uint64_t cluster = pos / kClusterBytes;
            uint32_t in = uint32_t(pos % kClusterBytes);
            uint32_t n = std::min<uint32_t>(kClusterBytes - in, bytes - done);
            auto it = lunData.find(cluster);
            const unsigned char* src = it == lunData.end() ? zeros.data() : it->second.data();
            window.Write(DataBuffer{n, const_cast<unsigned char*>(src + in)}, done, n);
            done += n;
        }
    }
    request.window = window;
    request.status = StatusCode::Success;
    return StatusCode::Success;
}

StatusCode CATManager::WriteData(ClientRequest& request, bool checkOnly) {
    (void)checkOnly;
    StatusCode rc = checkRange(request);
    if (rc != StatusCode::Success) {
        request.status = rc;
        return rc;
    }
    uint32_t bytes = std::min(request.len * 512, request.window.GetLength());
    std::vector<unsigned char> flat(bytes);
    DataBuffer into{bytes, flat.data()};
    request.window.Read(into, 0, bytes);
    std::lock_guard<std::mutex> g(mLock);
    auto& lunData = mData[request.lun];
    uint64_t offset = request.lba * 512;
    uint32_t done = 0;
    while (done < bytes) {
        uint64_t pos = offset + done;
        uint64_t cluster = pos / kClusterBytes;
        uint32_t in = uint32_t(pos % kClusterBytes);
        uint32_t n = std::min<uint32_t>(kClusterBytes - in, bytes - done);
        auto& c = lunData[cluster];
        if (c.empty()) c.assign(kClusterBytes, 0);
        std::memcpy(c.data() + in, flat.data() + done, n);
        done += n;
    }
    request.status = StatusCode::Success;
    return StatusCode::Success;
}

void CATManager::forgetLun(uint32_t lun) {
    std::lock_guard<std::mutex> g(mLock);
    mData.erase(lun);
}
