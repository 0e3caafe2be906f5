#include "management/EventLogManager.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "platform/flash/Flash.h"
#include "platform/rtos/BoardClock.h"
#include "util/ConsoleCommand.h"
#include "util/Endian.h"
#include "util/Trace.h"

EventLogManager* EventLogManager::EventLog() {
    static EventLogManager log;
    return &log;
}

EventLogManager* EventLogManager::DiskLog() {
    static EventLogManager log;
    return &log;
}

StatusCode EventLogManager::Initialize(int, const char* signature, const char* flashFile) {
    {
        std::lock_guard<std::mutex> g(mLock);
        mSignature = std::string(signature ? signature : "").substr(0, 8);
        mFlashPath = flashFile && *flashFile ? flashPath(flashFile) : std::string();
        mFlashFailed = false;
        if (!mFlashPath.empty()) openFlash();
    }
    if (this == EventLog()) ConsoleCommand::eventSink = [](const std::string& t) { EventLog()->PostEvent(t); };
    return StatusCode::Success;
}

StatusCode EventLogManager::LoadDiskPack(bool) { return StatusCode::Success; }
StatusCode EventLogManager::UnloadDiskPack() { return StatusCode::Success; }

// With the lock held: reads the cursor of the flash copy, creating the file if missing.
bool EventLogManager::openFlash() {
    FILE* f = std::fopen(mFlashPath.c_str(), "rb");
    if (!f) {
        ESA_CONSOLE("Unable to open the eventLog file in flash - creating: " << mFlashPath);
        f = std::fopen(mFlashPath.c_str(), "wb");
        std::vector<unsigned char> zeros(4 + kFlashRecords * kRecordSize, 0);
        if (!f || std::fwrite(zeros.data(), 1, zeros.size(), f) != zeros.size()) {
            ESA_CONSOLE("Unable to init the eventLog file in flash: " << mFlashPath);
            if (f) std::fclose(f);
            return false;
        }
        std::fclose(f);
        mFlashCursor = 0;
        return true;
    }
    unsigned char word[4];
    if (std::fread(word, 1, 4, f) != 4) {
        ESA_CONSOLE("Unable to read cursor value from the eventLog file in flash: " << mFlashPath);
        mFlashCursor = 0;
    } else {
        mFlashCursor = getLE32(word) % kFlashRecords;
    }
    std::fclose(f);
    return true;
}

void EventLogManager::writeFlashRecord(uint32_t time, const std::string& text) {
    FILE* f = std::fopen(mFlashPath.c_str(), "r+b");
    if (!f) {
        if (!mFlashFailed) ESA_CONSOLE("Unable to open the eventLog file in flash for write: " << mFlashPath);
        mFlashFailed = true;
        return;
    }
    unsigned char record[kRecordSize] = {};
    putLE32(record, time);
    std::memcpy(record + 4, text.data(), std::min<size_t>(text.size(), kTextSize - 1));
    if (std::fseek(f, long(4 + mFlashCursor * kRecordSize), SEEK_SET) != 0) {
        ESA_CONSOLE("Unable to seek to record " << mFlashCursor);
    } else if (std::fwrite(record, 1, kRecordSize, f) != kRecordSize) {
        ESA_CONSOLE("Unable to write record " << mFlashCursor);
    } else {
        mFlashCursor = (mFlashCursor + 1) % kFlashRecords;
        unsigned char word[4];
        putLE32(word, mFlashCursor);
        if (std::fseek(f, 0, SEEK_SET) != 0)
            ESA_CONSOLE("Unable to seek to cursor location in the eventLog file in flash: " << mFlashPath);
        else if (std::fwrite(word, 1, 4, f) != 4)
            ESA_CONSOLE("Unable to write new cursor in the eventLog file in flash: " << mFlashPath);
    }
    std::fclose(f);
}

StatusCode EventLogManager::PostEvent(const std::string& line) {
    std::string text = line.substr(0, kTextSize - 1);
    timespec now = BoardClock::GetInstance().realtime();
    time_t t = now.tv_sec;
    struct tm tmv;
    localtime_r(&t, &tmv);
    char stamp[64];
    std::strftime(stamp, sizeof stamp, "%a %b %d %H:%M:%S %Y: ", &tmv);
    ESA_CONSOLE("ELM: " << stamp << text);
    std::lock_guard<std::mutex> g(mLock);
    mEvents.push_back(text);
    if (mEvents.size() > kMemoryLines) mEvents.pop_front();
    if (!mFlashPath.empty()) writeFlashRecord(uint32_t(t), text);
    return StatusCode::Success;
}

std::deque<std::string> EventLogManager::events() {
    std::lock_guard<std::mutex> g(mLock);
    return mEvents;
}

std::deque<std::string> EventLogManager::flashEvents() {
    std::lock_guard<std::mutex> g(mLock);
    std::deque<std::string> out;
    if (mFlashPath.empty()) return out;
    FILE* f = std::fopen(mFlashPath.c_str(), "rb");
    if (!f) return out;
    std::vector<unsigned char> all(4 + kFlashRecords * kRecordSize, 0);
    size_t n = std::fread(all.data(), 1, all.size(), f);
    std::fclose(f);
    if (n < all.size()) return out;
    uint32_t cursor = getLE32(all.data()) % kFlashRecords;
    for (uint32_t i = 0; i < kFlashRecords; ++i) {
        const unsigned char* r = all.data() + 4 + ((cursor + i) % kFlashRecords) * kRecordSize;
        if (getLE32(r) == 0 && r[4] == 0) continue;  // an empty slot
        out.emplace_back(reinterpret_cast<const char*>(r + 4), strnlen(reinterpret_cast<const char*>(r + 4), kTextSize));
    }
    return out;
}

namespace {
int eventPostCommand(int argc, char** argv, std::ostream& out) {
    if (argc < 2) {
        out << "usage: eventpost <message>\n";
        return -1;
    }
    std::string text;
    for (int i = 1; i < argc; ++i) {
        if (i > 1) text += ' ';
        text += argv[i];
    }
    EventLogManager::EventLog()->PostEvent(text);
    return 0;
}
ConsoleCommand gEventPost("eventpost", "Post a message to the event log", eventPostCommand);
}  // namespace
