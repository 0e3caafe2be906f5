#include "system/CalServ.h"

#include <algorithm>

CalServ* CalServ::GetInstance() {
    static CalServ instance;
    return &instance;
}

StatusCode CalServ::registerAlarm(uint32_t source, alarmType, uint32_t) {
    std::lock_guard<std::mutex> g(mLock);
    if (std::find(mSources.begin(), mSources.end(), source) != mSources.end()) return StatusCode::BadAlarm;
    mSources.push_back(source);
    return StatusCode::Success;
}

StatusCode CalServ::cancelAlarm(uint32_t source) {
    std::lock_guard<std::mutex> g(mLock);
    auto it = std::find(mSources.begin(), mSources.end(), source);
    if (it == mSources.end()) return StatusCode::BadAlarm;
    mSources.erase(it);
    return StatusCode::Success;
}
