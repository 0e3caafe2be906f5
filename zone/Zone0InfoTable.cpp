#include "zone/Zone0InfoTable.h"

#include <algorithm>
#include <cstring>

Zone0InfoTable* Zone0InfoTable::GetInstance() {
    static Zone0InfoTable instance;
    return &instance;
}

bool Zone0InfoTable::entryValid(unsigned entry, const char* signature, uint32_t version) {
    std::lock_guard<std::mutex> g(mLock);
    auto it = mAreas.find(entry);
    return it != mAreas.end() && it->second.signature == signature && it->second.version == version;
}

StatusCode Zone0InfoTable::CreateEntry(unsigned entry, uint32_t version, uint32_t size, const char* signature) {
    std::lock_guard<std::mutex> g(mLock);
    mAreas[entry] = Area{signature, version, std::vector<uint8_t>(size, 0)};
    return StatusCode::Success;
}

StatusCode Zone0InfoTable::EraseEntry(unsigned entry) {
    std::lock_guard<std::mutex> g(mLock);
    mAreas.erase(entry);
    return StatusCode::Success;
}

StatusCode Zone0InfoTable::ReadArea(unsigned entry, uint8_t* buffer, uint32_t length) {
    std::lock_guard<std::mutex> g(mLock);
    auto it = mAreas.find(entry);
    if (it == mAreas.end()) return StatusCode::CorruptedZone0Entry;
    size_t n = std::min<size_t>(length, it->second.data.size());
    std::memcpy(buffer, it->second.data.data(), n);
    return StatusCode::Success;
}

StatusCode Zone0InfoTable::WriteArea(unsigned entry, const uint8_t* buffer, uint32_t length) {
    std::lock_guard<std::mutex> g(mLock);
    auto it = mAreas.find(entry);
    if (it == mAreas.end()) return StatusCode::CorruptedZone0Entry;
    size_t n = std::min<size_t>(length, it->second.data.size());
    std::memcpy(it->second.data.data(), buffer, n);
    return StatusCode::Success;
}
