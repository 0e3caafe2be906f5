#include "system/EventManager.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/rtos/Rtos.h"
#include "util/Eventually.h"

namespace {
struct Recorder {
    std::mutex lock;
    std::vector<unsigned long> values;
    static void handler(EVENT_TYPE, void* context, unsigned long value, void*) {
        auto* r = static_cast<Recorder*>(context);
        std::lock_guard<std::mutex> g(r->lock);
        r->values.push_back(value);
    }
    size_t size() {
        std::lock_guard<std::mutex> g(lock);
        return values.size();
    }
};

class Events : public testing::Test {
protected:
    void SetUp() override { em->Initialize(); }
    void TearDown() override {
        for (auto [type, id] : added) em->RemoveHandler(type, id);
        em->EnableEventHandling();
    }
    void addEnd(EVENT_TYPE type, void* context, EventHandler h) {
        uint32_t id;
        em->AddHandlerEnd(type, context, h, &id);
        added.push_back({type, id});
    }
    EventManager* em = EventManager::GetInstance();
    std::vector<std::pair<EVENT_TYPE, uint32_t>> added;
};
}  // namespace

TEST_F(Events, EventsPostedBeforeEnableArriveInOrderAfterItAndThe17thIsLost) {
    em->DisableEventHandling();
    Recorder r;
    addEnd(eSysInit, &r, Recorder::handler);
    uint64_t droppedBefore = em->dropped(eSysInit);
    for (unsigned long v = 1; v <= 17; ++v) EXPECT_EQ(em->NewEvent(eSysInit, false, v), 1);
    EXPECT_EQ(em->queued(eSysInit), 16u);
    EXPECT_EQ(em->dropped(eSysInit), droppedBefore + 1);
    EXPECT_EQ(r.size(), 0u) << "nothing runs before handling is enabled";
    em->EnableEventHandling();
    ASSERT_TRUE(eventually([&] { return r.size() == 16; }));
    std::vector<unsigned long> expected;
    for (unsigned long v = 1; v <= 16; ++v) expected.push_back(v);
    std::lock_guard<std::mutex> g(r.lock);
    EXPECT_EQ(r.values, expected);
}

TEST_F(Events, HotPlugEventsRunWhileHandlingIsDisabled) {
    em->DisableEventHandling();
    Recorder r;
    addEnd(eHotplugDisk, &r, Recorder::handler);
    em->NewEvent(eHotplugDisk, false, 5ul);
    EXPECT_TRUE(eventually([&] { return r.size() == 1; }));
}

TEST_F(Events, ABurstFromManyThreadsNeverBlocksTheSenders) {
    em->DisableEventHandling();
    Recorder r;
    addEnd(eQAInsertD, &r, Recorder::handler);
    uint64_t droppedBefore = em->dropped(eQAInsertD);
    std::vector<std::thread> senders;
    for (int t = 0; t < 8; ++t)
        senders.emplace_back([&, t] {
            for (int i = 0; i < 500; ++i) em->NewEvent(eQAInsertD, false, (unsigned long)(t * 1000 + i));
        });
    for (auto& s : senders) s.join();  // a sender that blocked would hang here
    EXPECT_EQ(em->queued(eQAInsertD), 16u);
    EXPECT_EQ(em->dropped(eQAInsertD), droppedBefore + 4000 - 16);
    em->EnableEventHandling();
    ASSERT_TRUE(eventually([&] { return r.size() == 16; }));
    // Each sender's events keep their order.
    std::lock_guard<std::mutex> g(r.lock);
    for (size_t i = 1; i < r.values.size(); ++i)
        if (r.values[i] / 1000 == r.values[i - 1] / 1000) {
            EXPECT_GT(r.values[i], r.values[i - 1]);
        }
}

namespace {
struct ListChanger {
    EventManager* em = nullptr;
    std::mutex lock;
    std::vector<std::string> calls;
    uint32_t selfId = 0;
    void note(const char* who) {
        std::lock_guard<std::mutex> g(lock);
        calls.push_back(who);
    }
    static void first(EVENT_TYPE, void* c, unsigned long, void*) { static_cast<ListChanger*>(c)->note("first"); }
    static void last(EVENT_TYPE, void* c, unsigned long, void*) { static_cast<ListChanger*>(c)->note("last"); }
    static void added(EVENT_TYPE, void* c, unsigned long, void*) { static_cast<ListChanger*>(c)->note("added"); }
    // Removes itself and adds another handler, from inside the dispatch.
    static void changer(EVENT_TYPE type, void* c, unsigned long, void*) {
        auto* self = static_cast<ListChanger*>(c);
        self->note("changer");
        self->em->RemoveHandler(type, self->selfId);
        self->em->AddHandlerStart(type, c, added);
    }
    size_t size() {
        std::lock_guard<std::mutex> g(lock);
        return calls.size();
    }
};
}  // namespace

TEST_F(Events, HandlersRunInListOrderAndMayChangeTheListWhileRunning) {
    em->EnableEventHandling();
    ListChanger lc;
    lc.em = em;
    EVENT_TYPE type = eQARemoveD;
    int before = em->handlerCount(type);
    em->AddHandlerEnd(type, &lc, ListChanger::last);
    em->AddHandlerStart(type, &lc, ListChanger::changer, &lc.selfId);
    em->AddHandlerStart(type, &lc, ListChanger::first);
    EXPECT_EQ(em->handlerCount(type), before + 3);
    em->NewEvent(type, false, 1ul);
    ASSERT_TRUE(eventually([&] { return lc.size() == 3; }));
    em->NewEvent(type, false, 2ul);
    ASSERT_TRUE(eventually([&] { return lc.size() == 6; }));
    {
        std::lock_guard<std::mutex> g(lc.lock);
        EXPECT_EQ(lc.calls, (std::vector<std::string>{"first", "changer", "last", "added", "first", "last"}));
    }
    // Leave the list as it was found.
    while (em->handlerCount(type) > before) {
        bool removed = false;
        for (uint32_t id = 1; id < 1000 && !removed; ++id) removed = em->RemoveHandler(type, id) == StatusCode::Success;
    }
}

TEST_F(Events, EveryTypeHasANamedThread) {
    EXPECT_STREQ(eventTypeName(eHotplugDisk), "eHotplugDisk");
    EXPECT_STREQ(eventTypeName(eCalendar), "eCalendar");
    EXPECT_STREQ(eventTypeName(17), "BAD-EVENT");
    int found = 0;
    for (TASK_ID t : taskList())
        for (int type = 0; type < MAX_EVENT_TYPES; ++type)
            if (taskName(t) == eventTypeName(type)) {
                ++found;
                EXPECT_EQ(taskPriorityGet(t), 120);
            }
    EXPECT_EQ(found, MAX_EVENT_TYPES);
    std::ostringstream out;
    em->Dump(out);
    EXPECT_NE(out.str().find("  eCalendar: handlers "), std::string::npos) << out.str();
}

TEST(EventsDeath, AnEventTypeOutOfRangeIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            ::dup2(2, 1);  // the assertion report goes to stdout
            EventManager::GetInstance()->NewEvent(EVENT_TYPE(17), false, 0ul);
        },
        testing::ExitedWithCode(75), "Invalid Event Types(.|\n)*event_type");
}
