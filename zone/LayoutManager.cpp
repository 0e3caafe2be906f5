#include "zone/LayoutManager.h"

#include "util/Trace.h"

LayoutManager* LayoutManager::GetInstance() {
    static LayoutManager instance;
    return &instance;
}

void LayoutManager::InitiateBackgroundPatch(uint32_t zone, uint32_t offset, unsigned dataCopy, IOTracker& tracker) {
    (void)tracker;
    ESA_CONSOLE("LM: patch requested for Zone " << zone << " offset 0x" << std::hex << offset << std::dec
                                                << " copy " << dataCopy);
    std::lock_guard<std::mutex> guard(mPatchLock);
    ++mPatchCount;
    if (mPatches.size() == kPatchHistory) mPatches.erase(mPatches.begin());
    mPatches.push_back({zone, offset, dataCopy});
}

std::vector<LayoutManager::PatchRequest> LayoutManager::patchRequests() {
    std::lock_guard<std::mutex> guard(mPatchLock);
    return mPatches;
}

uint64_t LayoutManager::patchRequestCount() {
    std::lock_guard<std::mutex> guard(mPatchLock);
    return mPatchCount;
}

void LayoutManager::clearPatchRequests() {
    std::lock_guard<std::mutex> guard(mPatchLock);
    mPatches.clear();
    mPatchCount = 0;
}

void LayoutManager::Dump(std::ostream& out) {
    std::lock_guard<std::mutex> guard(mPatchLock);
    out << "LayoutManager: " << mPatchCount << " patch requests\n";
    for (const PatchRequest& p : mPatches)
        out << "  Zone " << p.zone << " offset 0x" << std::hex << p.offset << std::dec << " copy " << p.dataCopy
            << "\n";
}
