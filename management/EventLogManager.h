#pragma once
// EventLogManager: the least start-up needs for now: posted events are kept in
// memory, printed on the console and appended to the flash copy. The ring on
// the pack comes with the event log layer.
#include <deque>
#include <mutex>
#include <string>

#include "util/StatusCode.h"

class EventLogManager {
public:
    EventLogManager() = default;
    StatusCode Initialize(int zone0Entry, const char* signature, const char* flashPath);
    StatusCode LoadDiskPack(bool clear);
    StatusCode UnloadDiskPack();
    void PostEvent(const std::string& text);
    std::deque<std::string> events();

    // The system's event log and the disk log.
    static EventLogManager* EventLog();
    static EventLogManager* DiskLog();

private:
    std::mutex mLock;
    std::deque<std::string> mEvents;
    std::string mSignature;
    std::string mFlashPath;
};
