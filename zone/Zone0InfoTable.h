#pragma once
// Zone0InfoTable: the least the pack load needs for now: user areas of Zone 0
// kept in memory. The on-disk directory comes with the Zone layer.
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "include/ManagerBase.h"

class Zone0InfoTable : public ManagerBase {
public:
    static Zone0InfoTable* GetInstance();
    StatusCode Initialize() override { return StatusCode::Success; }
    StatusCode LoadDiskPack() override { return StatusCode::Success; }
    StatusCode UnloadDiskPack() override { return StatusCode::Success; }

    bool entryValid(unsigned entry, const char* signature, uint32_t version);
    StatusCode CreateEntry(unsigned entry, uint32_t version, uint32_t size, const char* signature);
    StatusCode EraseEntry(unsigned entry);
    StatusCode ReadArea(unsigned entry, uint8_t* buffer, uint32_t length);
    StatusCode WriteArea(unsigned entry, const uint8_t* buffer, uint32_t length);

private:
    Zone0InfoTable() = default;
    struct Area {
        std::string signature;
        uint32_t version;
        std::vector<uint8_t> data;
    };
    std::mutex mLock;
    std::map<unsigned, Area> mAreas;
};
