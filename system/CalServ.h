#pragma once
// CalServ: the least the pack load needs for now: alarms kept in memory,
// never delivered. Persistence in Zone 0 and delivery come with the calendar.
#include <cstdint>
#include <mutex>
#include <vector>

#include "include/ManagerBase.h"

class CalServ : public ManagerBase {
public:
    enum alarmType { ONE_SHOT = 0, REPEATING = 1, TRACKED = 2 };
    static CalServ* GetInstance();
    StatusCode Initialize() override { return StatusCode::Success; }
    StatusCode LoadDiskPack() override { return StatusCode::Success; }
    StatusCode UnloadDiskPack() override { return StatusCode::Success; }
    StatusCode registerAlarm(uint32_t source, alarmType type, uint32_t seconds);
    StatusCode cancelAlarm(uint32_t source);

private:
    CalServ() = default;
    std::mutex mLock;
    std::vector<uint32_t> mSources;
};
