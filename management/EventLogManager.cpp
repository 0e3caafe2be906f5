#include "management/EventLogManager.h"

#include <fstream>

#include "platform/flash/Flash.h"
#include "util/ConsoleCommand.h"
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
    std::lock_guard<std::mutex> g(mLock);
    mSignature = signature;
    mFlashPath = flashFile && *flashFile ? flashPath(flashFile) : std::string();
    if (this == EventLog()) ConsoleCommand::eventSink = [](const std::string& t) { EventLog()->PostEvent(t); };
    return StatusCode::Success;
}

StatusCode EventLogManager::LoadDiskPack(bool) { return StatusCode::Success; }
StatusCode EventLogManager::UnloadDiskPack() { return StatusCode::Success; }

void EventLogManager::PostEvent(const std::string& text) {
    ESA_CONSOLE("EVENT: " << text);
    std::lock_guard<std::mutex> g(mLock);
    mEvents.push_back(text);
    if (mEvents.size() > 1000) mEvents.pop_front();
    if (!mFlashPath.empty()) std::ofstream(mFlashPath, std::ios::app) << text << "\n";
}

std::deque<std::string> EventLogManager::events() {
    std::lock_guard<std::mutex> g(mLock);
    return mEvents;
}
