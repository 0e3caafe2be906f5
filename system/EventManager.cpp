#include "system/EventManager.h"

#include "util/Assert.h"

EventManager* EventManager::GetInstance() {
    static EventManager instance;
    return &instance;
}

StatusCode EventManager::Initialize() { return StatusCode::Success; }
void EventManager::EnableEventHandling() { mEnabled = true; }
void EventManager::DisableEventHandling() { mEnabled = false; }

int EventManager::AddHandlerStart(EVENT_TYPE type, void* context, EventHandler handler) {
    ESA_ASSERT_OP(type, <, MAX_EVENT_TYPES);
    std::lock_guard<std::mutex> g(mLock);
    mHandlers[type].insert(mHandlers[type].begin(), Entry{context, handler});
    return int(mHandlers[type].size());
}

int EventManager::AddHandlerEnd(EVENT_TYPE type, void* context, EventHandler handler) {
    ESA_ASSERT_OP(type, <, MAX_EVENT_TYPES);
    std::lock_guard<std::mutex> g(mLock);
    mHandlers[type].push_back(Entry{context, handler});
    return int(mHandlers[type].size());
}

int EventManager::NewEvent(EVENT_TYPE type, bool, unsigned long) {
    ESA_ASSERT_OP(type, <, MAX_EVENT_TYPES);
    return 1;
}
