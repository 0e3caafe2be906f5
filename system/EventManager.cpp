#include "system/EventManager.h"

#include "platform/rtos/Rtos.h"
#include "util/Assert.h"
#include "util/Diagnostics.h"
#include "util/Trace.h"

namespace {
const char* const eventQNameList[MAX_EVENT_TYPES] = {
    "eSysInit",   "eDiskRdErr", "eDiskWrErr", "eUnldDPack", "eLoadDPack", "eHotplugDisk",
    "eRebuild",   "eDUDWMark",  "ePhyExpung", "eLogExpung", "eDISRepair", "eEPMDefer",
    "eSysMgr",    "eQAInsertD", "eQARemoveD", "eELMPost",   "eCalendar",
};
}  // namespace

const char* eventTypeName(int type) {
    return type >= 0 && type < MAX_EVENT_TYPES ? eventQNameList[type] : "BAD-EVENT";
}

// ---- the ring

EventManager::EventQueue::EventQueue() {
    for (uint32_t i = 0; i < kQueueDepth; ++i) slots[i].sequence.store(i, std::memory_order_relaxed);
}

bool EventManager::EventQueue::push(unsigned long value) {
    uint32_t pos = enqueuePos.load(std::memory_order_relaxed);
    for (;;) {
        Slot& s = slots[pos % kQueueDepth];
        int32_t diff = int32_t(s.sequence.load(std::memory_order_acquire) - pos);
        if (diff == 0) {
            if (enqueuePos.compare_exchange_weak(pos, pos + 1, std::memory_order_relaxed)) {
                s.value = value;
                s.sequence.store(pos + 1, std::memory_order_release);
                posted.fetch_add(1);
                // Only a sleeping reader costs the sender a wake-up call.
                if (readerWaiting.load()) posted.notify_one();
                return true;
            }
        } else if (diff < 0) {
            return false;  // full
        } else {
            pos = enqueuePos.load(std::memory_order_relaxed);
        }
    }
}

bool EventManager::EventQueue::peek() const {
    uint32_t pos = dequeuePos.load(std::memory_order_relaxed);
    return slots[pos % kQueueDepth].sequence.load(std::memory_order_acquire) == pos + 1;
}

bool EventManager::EventQueue::pop(unsigned long& value) {
    uint32_t pos = dequeuePos.load(std::memory_order_relaxed);
    Slot& s = slots[pos % kQueueDepth];
    if (s.sequence.load(std::memory_order_acquire) != pos + 1) return false;
    value = s.value;
    s.sequence.store(pos + kQueueDepth, std::memory_order_release);
    dequeuePos.store(pos + 1, std::memory_order_relaxed);
    return true;
}

unsigned EventManager::queued(EVENT_TYPE type) const {
    const EventQueue& q = mQueues[type];
    return q.enqueuePos.load() - q.dequeuePos.load();
}

// ---- the manager

EventManager* EventManager::GetInstance() {
    static EventManager instance;
    return &instance;
}

StatusCode EventManager::Initialize() {
    std::call_once(mStarted, [this] {
        for (int t = 0; t < MAX_EVENT_TYPES; ++t)
            taskSpawn(eventQNameList[t], kThreadPriority, [this, t] { eventThread(EVENT_TYPE(t)); });
    });
    return StatusCode::Success;
}

void EventManager::EnableEventHandling() {
    mEnabled.store(true);
    mEnabled.notify_all();
}

void EventManager::DisableEventHandling() { mEnabled.store(false); }

void EventManager::eventThread(EVENT_TYPE type) {
    EventQueue& q = mQueues[type];
    for (;;) {
        uint32_t seen = q.posted.load();
        if (!q.peek()) {
            q.readerWaiting.store(true);
            if (q.posted.load() == seen) q.posted.wait(seen);
            q.readerWaiting.store(false);
            continue;
        }
        // Hot-plug events run from the start; all others stay queued (and
        // keep their place in the ring) until handling is enabled.
        if (type != eHotplugDisk) {
            while (!mEnabled.load()) mEnabled.wait(false);
        }
        unsigned long value;
        if (!q.pop(value)) continue;
        HandleEvent(type, value);
        taskDelay(0);
    }
}

void EventManager::HandleEvent(EVENT_TYPE type, unsigned long value) {
    EventHandlerList& list = mLists[type];
    std::unique_lock<std::mutex> g(list.lock);
    for (auto it = list.entries.begin(); it != list.entries.end();) {
        if (it->removed) {
            ++it;
            continue;
        }
        ++it->inCall;
        EventHandler handler = it->handler;
        void* context = it->context;
        g.unlock();
        handler(type, context, value, nullptr);
        g.lock();
        --it->inCall;
        auto next = std::next(it);
        if (it->removed && it->inCall == 0) list.entries.erase(it);
        it = next;
    }
}

int EventManager::addHandler(EVENT_TYPE type, void* context, EventHandler handler, bool atStart, uint32_t* id) {
    ESA_ASSERT_OP(type, <, MAX_EVENT_TYPES);
    EventHandlerList& list = mLists[type];
    std::lock_guard<std::mutex> g(list.lock);
    HandlerEntry e{context, handler, list.nextId++};
    if (atStart) list.entries.push_front(e);
    else list.entries.push_back(e);
    if (id) *id = e.id;
    return ++list.count;
}

int EventManager::AddHandlerStart(EVENT_TYPE type, void* context, EventHandler handler, uint32_t* id) {
    return addHandler(type, context, handler, true, id);
}

int EventManager::AddHandlerEnd(EVENT_TYPE type, void* context, EventHandler handler, uint32_t* id) {
    return addHandler(type, context, handler, false, id);
}

StatusCode EventManager::RemoveHandler(EVENT_TYPE type, uint32_t id) {
    ESA_ASSERT_OP(type, <, MAX_EVENT_TYPES);
    EventHandlerList& list = mLists[type];
    std::lock_guard<std::mutex> g(list.lock);
    for (auto it = list.entries.begin(); it != list.entries.end(); ++it) {
        if (it->id != id || it->removed) continue;
        --list.count;
        // A handler being called right now is unlinked when its call returns.
        if (it->inCall) it->removed = true;
        else list.entries.erase(it);
        return StatusCode::Success;
    }
    return StatusCode::InternalError;
}

int EventManager::handlerCount(EVENT_TYPE type) {
    std::lock_guard<std::mutex> g(mLists[type].lock);
    return mLists[type].count;
}

int EventManager::NewEvent(EVENT_TYPE type, bool, unsigned long value) {
    int event_type = int(type);
    if (event_type < 0 || event_type >= MAX_EVENT_TYPES) {
        ESA_CONSOLE("Invalid Event Types\n");
        ESA_ASSERT_OP(event_type, <, MAX_EVENT_TYPES);
    }
    // A full queue drops the event: the sender never waits. The sender does
    // not yield afterwards either: the type's thread runs on its own here, and
    // a yield would only cost an I/O path a system call.
    if (!mQueues[type].push(value)) mQueues[type].dropped.fetch_add(1, std::memory_order_relaxed);
    return 1;
}

int EventManager::NewEvent(EVENT_TYPE type, bool urgent, void* value) {
    return NewEvent(type, urgent, (unsigned long)(uintptr_t)value);
}

void EventManager::Dump(std::ostream& out) {
    out << "EventManager: handling " << (mEnabled.load() ? "enabled" : "disabled") << "\n";
    for (int t = 0; t < MAX_EVENT_TYPES; ++t)
        out << "  " << eventQNameList[t] << ": handlers " << handlerCount(EVENT_TYPE(t)) << ", queued "
            << queued(EVENT_TYPE(t)) << ", dropped " << dropped(EVENT_TYPE(t)) << "\n";
}

namespace {
DiagnosticHandler gEventDiagnostics([](std::ostream& out) { EventManager::GetInstance()->Dump(out); },
                                    "EventManager", 100);
}  // namespace
