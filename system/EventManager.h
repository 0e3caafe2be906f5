#pragma once
// EventManager: the least start-up needs for now. It records whether event
// handling is enabled and keeps the handler lists; delivery threads and queues
// come with the events layer.
#include <cstdint>
#include <mutex>
#include <vector>

#include "util/StatusCode.h"

enum EVENT_TYPE {
    eSysInit = 0, eDiskRdErr, eDiskWrErr, eUnldDPack, eLoadDPack, eHotplugDisk, eRebuild, eDUDWMark, ePhyExpung,
    eLogExpung, eDISRepair, eEPMDefer, eSysMgr, eQAInsertD, eQARemoveD, eELMPost, eCalendar, MAX_EVENT_TYPES
};

using EventHandler = void (*)(EVENT_TYPE, void* context, unsigned long value, void*);

class EventManager {
public:
    static EventManager* GetInstance();
    StatusCode Initialize();
    void EnableEventHandling();
    void DisableEventHandling();
    bool handlingEnabled() const { return mEnabled; }
    int AddHandlerStart(EVENT_TYPE type, void* context, EventHandler handler);
    int AddHandlerEnd(EVENT_TYPE type, void* context, EventHandler handler);
    int NewEvent(EVENT_TYPE type, bool, unsigned long value);

private:
    EventManager() = default;
    struct Entry {
        void* context;
        EventHandler handler;
    };
    std::mutex mLock;
    std::vector<Entry> mHandlers[MAX_EVENT_TYPES];
    bool mEnabled = false;
};
