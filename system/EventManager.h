#pragma once
// EventManager: lets a subsystem say that something happened without knowing
// who cares and without blocking. Each EVENT_TYPE has its own queue of 16
// values, its own thread (named after the type) and its own handler list;
// one type is handled strictly in order, different types side by side.
//
// NewEvent never blocks and never allocates: the queues are fixed rings
// filled with atomics, and a full ring drops the event. Until handling is
// enabled, every thread but the hot-plug one leaves its ring untouched, so a
// ring holds 16 waiting events and the 17th is lost. Handlers run on the
// type's thread, in list order; the list lock is released around each call so
// a handler may add or remove handlers.
#include <atomic>
#include <cstdint>
#include <list>
#include <mutex>
#include <ostream>

#include "util/StatusCode.h"

enum EVENT_TYPE {
    eSysInit = 0, eDiskRdErr, eDiskWrErr, eUnldDPack, eLoadDPack, eHotplugDisk, eRebuild, eDUDWMark, ePhyExpung,
    eLogExpung, eDISRepair, eEPMDefer, eSysMgr, eQAInsertD, eQARemoveD, eELMPost, eCalendar, MAX_EVENT_TYPES
};

using EventHandler = void (*)(EVENT_TYPE, void* context, unsigned long value, void*);

// The thread name of an event type; "BAD-EVENT" for a value out of range.
const char* eventTypeName(int type);

class EventManager {
public:
    static constexpr unsigned kQueueDepth = 16;
    static constexpr int kThreadPriority = 120;

    static EventManager* GetInstance();

    // Starts the 17 event threads (once).
    StatusCode Initialize();
    void EnableEventHandling();
    void DisableEventHandling();
    bool handlingEnabled() const { return mEnabled.load(); }

    // Return the list's new count; the new entry's id (counted up from 1) goes to *id if given.
    int AddHandlerStart(EVENT_TYPE type, void* context, EventHandler handler, uint32_t* id = nullptr);
    int AddHandlerEnd(EVENT_TYPE type, void* context, EventHandler handler, uint32_t* id = nullptr);
    StatusCode RemoveHandler(EVENT_TYPE type, uint32_t id);
    int handlerCount(EVENT_TYPE type);

    // Queues `value` for the type's thread without waiting; the result is 1.
    int NewEvent(EVENT_TYPE type, bool, unsigned long value);
    int NewEvent(EVENT_TYPE type, bool, void* value);

    // Events lost to a full queue, per type (for dumps and tests).
    uint64_t dropped(EVENT_TYPE type) const { return mQueues[type].dropped.load(); }
    // Events waiting in the type's queue.
    unsigned queued(EVENT_TYPE type) const;
    // Per type: handlers, waiting events, events lost.
    void Dump(std::ostream& out);

private:
    EventManager() = default;

    // A bounded multi-producer ring read by the type's one thread.
    struct EventQueue {
        struct Slot {
            std::atomic<uint32_t> sequence;
            unsigned long value;
        };
        EventQueue();
        bool push(unsigned long value);
        bool peek() const;
        bool pop(unsigned long& value);
        Slot slots[kQueueDepth];
        std::atomic<uint32_t> enqueuePos{0};
        std::atomic<uint32_t> dequeuePos{0};
        std::atomic<uint32_t> posted{0};  // bumped after each push; the thread waits on it
        std::atomic<bool> readerWaiting{false};
        std::atomic<uint64_t> dropped{0};
    };

    struct HandlerEntry {
        void* context;
        EventHandler handler;
        uint32_t id;
        unsigned inCall = 0;
        bool removed = false;
    };
    struct EventHandlerList {
        std::mutex lock;
        std::list<HandlerEntry> entries;
        uint16_t count = 0;
        uint32_t nextId = 1;
    };

    int addHandler(EVENT_TYPE type, void* context, EventHandler handler, bool atStart, uint32_t* id);
    void eventThread(EVENT_TYPE type);
    void HandleEvent(EVENT_TYPE type, unsigned long value);

    EventQueue mQueues[MAX_EVENT_TYPES];
    EventHandlerList mLists[MAX_EVENT_TYPES];
    std::atomic<bool> mEnabled{false};
    std::once_flag mStarted;
};
