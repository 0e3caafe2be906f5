#pragma once
// EventLogManager: the event log as far as the system needs it before the
// log's ring in Zone 0 exists. A posted line is printed on the console at
// once ("ELM: <time>: <text>"), kept in memory (the newest kMemoryLines) and,
// for the event log, written to its flash copy "/RFA/eventLog": a cursor word
// then a ring of 200 records of 124 bytes (time, 120 bytes of text), little
// endian. Records longer than 119 characters are cut. Any thread may post.
// Not yet: the ring in the pack's Zone 0 and its dumps.
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

#include "util/StatusCode.h"

class EventLogManager {
public:
    static constexpr uint32_t kRecordSize = 0x7C;
    static constexpr uint32_t kTextSize = 120;
    static constexpr uint32_t kFlashRecords = 200;
    static constexpr size_t kMemoryLines = 1000;

    EventLogManager() = default;
    StatusCode Initialize(int zone0Entry, const char* signature, const char* flashPath);
    StatusCode LoadDiskPack(bool readOnly);
    StatusCode UnloadDiskPack();
    StatusCode PostEvent(const std::string& text);
    // The lines posted since start, oldest first.
    std::deque<std::string> events();
    // The flash copy's lines, oldest first (empty without a flash copy).
    std::deque<std::string> flashEvents();

    // The system's event log and the disk log.
    static EventLogManager* EventLog();
    static EventLogManager* DiskLog();

private:
    void writeFlashRecord(uint32_t time, const std::string& text);
    bool openFlash();

    std::mutex mLock;  // "lEventLogLock"
    std::deque<std::string> mEvents;
    std::string mSignature;
    std::string mFlashPath;
    uint32_t mFlashCursor = 0;
    bool mFlashFailed = false;
};
