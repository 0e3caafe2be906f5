#include "include/ObjectPool.h"

#include <gtest/gtest.h>

#include <sstream>
#include <thread>
#include <vector>

namespace {
struct Small : ObjectPool<Small> {
    uint64_t a = 1, b = 2;
};
struct Virtual : ObjectPool<Virtual> {
    virtual ~Virtual() = default;
    uint64_t payload = 0xABCDEF;
};
struct Derived : Virtual {
    char extra[100] = {};
};
struct Hammered : ObjectPool<Hammered> {
    uint64_t value = 0;
};
}  // namespace

TEST(ObjectPool, ReusesEntriesAndFallsBackOnTheHeapWhenEmpty) {
    ObjectPool<Small>::Initialize(2);
    Small* a = new Small;
    Small* b = new Small;
    EXPECT_EQ(ObjectPool<Small>::allocFromHeap(), 0u);
    Small* c = new Small;  // the pool is empty now
    EXPECT_EQ(ObjectPool<Small>::allocFromHeap(), 1u);
    EXPECT_EQ(ObjectPool<Small>::allocated(), 3u);
    EXPECT_EQ(ObjectPool<Small>::maxAllocated(), 3u);
    for (Small* p : {a, b, c}) EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 32, 0u);
    delete a;
    // The heap object goes back to the heap even though the pool has room again.
    delete c;
    Small* d = new Small;
    EXPECT_EQ(d, a) << "a freed pool entry is the next one handed out";
    Small* e = new Small;
    EXPECT_EQ(ObjectPool<Small>::allocFromHeap(), 2u) << "the heap object must not have joined the pool";
    delete b;
    delete d;
    delete e;
    EXPECT_EQ(ObjectPool<Small>::allocated(), 0u);
}

TEST(ObjectPool, ObjectsWithVirtualFunctionsKeepTheirContents) {
    ObjectPool<Virtual>::Initialize(4);
    std::vector<Virtual*> objects;
    for (int i = 0; i < 6; ++i) {
        objects.push_back(new Virtual);
        objects.back()->payload = uint64_t(i);
    }
    for (int i = 0; i < 6; ++i) EXPECT_EQ(objects[size_t(i)]->payload, uint64_t(i));
    for (Virtual* v : objects) delete v;
    // A derived class is bigger than the pool entry: it comes from the heap.
    size_t heapBefore = ObjectPool<Virtual>::allocFromHeap();
    Virtual* d = new Derived;
    EXPECT_EQ(ObjectPool<Virtual>::allocFromHeap(), heapBefore + 1);
    delete d;
    EXPECT_EQ(ObjectPool<Virtual>::allocated(), 0u);
}

TEST(ObjectPool, DumpPoolInfoPrintsTheTuningRecord) {
    ObjectPool<Small>::Initialize(2);
    std::ostringstream out;
    ObjectPool<Small>::DumpPoolInfo(out);
    for (const char* label : {"ObjectPool Info: ", "mPoolEntries: ", " pPoolBase: ", " mObjectSize: ",
                              "Currently allocated: ", "Max allocated: ", "Allocated from the heap: "})
        EXPECT_NE(out.str().find(label), std::string::npos) << label;
}

TEST(ObjectPool, ManyThreadsNeverShareAnEntry) {
    ObjectPool<Hammered>::Initialize(64);
    constexpr int kThreads = 8, kRounds = 20000;
    std::vector<std::thread> threads;
    std::atomic<int> corrupt{0};
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &corrupt] {
            std::vector<Hammered*> mine;
            for (int i = 0; i < kRounds; ++i) {
                Hammered* h = new Hammered;
                h->value = uint64_t(t) << 32 | uint64_t(i);
                mine.push_back(h);
                if (mine.size() > 12) {
                    for (Hammered* m : mine)
                        if (m->value >> 32 != uint64_t(t)) corrupt++;
                    for (Hammered* m : mine) delete m;
                    mine.clear();
                }
            }
            for (Hammered* m : mine) delete m;
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(corrupt.load(), 0);
    EXPECT_EQ(ObjectPool<Hammered>::allocated(), 0u);
}

namespace {
struct Kept : ObjectPool<Kept> {
    uint64_t value = 0;
};
}  // namespace

// A thread keeps a few entries it freed for its own next allocations; when it
// ends they must go back to the pool, or a pool used by short-lived threads
// would drain into the heap.
TEST(ObjectPool, EntriesAThreadKeptGoBackToThePoolWhenItEnds) {
    constexpr size_t kEntries = 1024;
    ObjectPool<Kept>::Initialize(kEntries);
    for (int round = 0; round < 4; ++round) {
        std::thread([] {
            std::vector<Kept*> mine;
            for (int i = 0; i < 40; ++i) mine.push_back(new Kept);
            for (Kept* k : mine) delete k;
            EXPECT_EQ(ObjectPool<Kept>::allocated(), 0u) << "kept entries are free, not allocated";
        }).join();
    }
    EXPECT_EQ(ObjectPool<Kept>::allocated(), 0u);
    const size_t heapBefore = ObjectPool<Kept>::allocFromHeap();
    std::vector<Kept*> all;
    for (size_t i = 0; i < kEntries; ++i) all.push_back(new Kept);
    EXPECT_EQ(ObjectPool<Kept>::allocFromHeap(), heapBefore) << "entries kept by ended threads were lost";
    EXPECT_EQ(ObjectPool<Kept>::allocated(), kEntries);
    for (Kept* k : all) delete k;
    EXPECT_EQ(ObjectPool<Kept>::allocated(), 0u);
}
