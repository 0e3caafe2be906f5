#pragma once
// Test support of the range cache: a tracker over an in-memory "disk" with
// per-element contents, read failures on demand and a count of writes; a
// stand-in journal that holds written ranges dirty until commit and pinned
// until spill, the way the metadata journal will; and a pump that moves the
// virtual board clock so that the cache's one-tick waits make progress.
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "cache/CacheRangeTracker.h"
#include "cache/CacheTrackerObject.h"
#include "platform/rtos/BoardClock.h"

// Element e of set s holds, in its first 8 bytes, a 64-bit value; the disk
// starts with value (s << 40 | e).
class ModelDisk {
public:
    uint64_t get(uint32_t set, uint64_t e) {
        std::lock_guard<std::mutex> g(mLock);
        auto it = mValues.find({set, e});
        return it == mValues.end() ? initial(set, e) : it->second;
    }
    void put(uint32_t set, uint64_t e, uint64_t v) {
        std::lock_guard<std::mutex> g(mLock);
        mValues[{set, e}] = v;
        ++mWrites;
    }
    static uint64_t initial(uint32_t set, uint64_t e) { return uint64_t(set) << 40 | e; }
    uint64_t writes() {
        std::lock_guard<std::mutex> g(mLock);
        return mWrites;
    }

private:
    std::mutex mLock;
    std::map<std::pair<uint32_t, uint64_t>, uint64_t> mValues;
    uint64_t mWrites = 0;
};

inline uint64_t elementValue(const unsigned char* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}

// Reads the 64-bit value of every element of a CTO's window.
inline std::vector<uint64_t> windowValues(CacheTrackerObject* cto, uint32_t es = 512) {
    std::vector<unsigned char> buf(cto->mWindow.GetLength());
    DataBuffer b{uint32_t(buf.size()), buf.data()};
    cto->mWindow.Read(b);
    std::vector<uint64_t> out;
    for (size_t i = 0; i + es <= buf.size(); i += es) out.push_back(elementValue(buf.data() + i));
    return out;
}

inline void writeWindowValues(CacheTrackerObject* cto, const std::vector<uint64_t>& values, uint32_t es = 512) {
    std::vector<unsigned char> buf(size_t(values.size()) * es, 0);
    for (size_t i = 0; i < values.size(); ++i) std::memcpy(buf.data() + i * es, &values[i], 8);
    DataBuffer b{uint32_t(buf.size()), buf.data()};
    cto->mWindow.Write(b);
}

class TestTracker : public CacheRangeTracker {
public:
    TestTracker(uint32_t blocks, const char* lockName = "lTESTLock") : CacheRangeTracker(lockName, blocks, 512) {}
    ~TestTracker() override { Flush(0); }

    StatusCode ReadRangeNotPresent(uint32_t set, CacheRangeObject* cro, IOTracker&, bool) override {
        ++reads;
        if (failReads.load()) return StatusCode::ReadError;
        DataStore* store = pool().GetBlocks(blocksFor(cro->mLength));
        for (uint32_t i = 0; i < cro->mLength; ++i) {
            unsigned char* p = nullptr;
            uint32_t n = 0;
            store->begin(i * 512, p, n);
            std::memset(p, 0, 512);
            uint64_t v = disk.get(set, cro->mStart + i);
            std::memcpy(p, &v, 8);
        }
        attachStore(cro, store);
        return StatusCode::Success;
    }

    StatusCode WriteBackRange(uint32_t set, uint64_t start, uint32_t length, CacheTrackerObject* cto,
                              IOTracker& tracker) override {
        if (journalled) return journalWrite(cto, tracker);
        std::vector<uint64_t> v = windowValues(cto);
        for (uint32_t i = 0; i < length; ++i) disk.put(set, start + i, v[i]);
        return StatusCode::Success;
    }

    // ---- the stand-in journal
    struct Held {
        CacheTrackerObject* cto;
        std::vector<uint64_t> values;  // the journal's own copy
        bool committed = false;
    };
    StatusCode journalWrite(CacheTrackerObject* cto, IOTracker& tracker) {
        std::lock_guard<std::mutex> g(jLock);
        auto& list = pending[tracker.getID()];
        for (Held& h : list)
            if (h.cto == cto) {
                h.values = windowValues(cto);
                return StatusCode::Success;
            }
        cto->MarkRangeDirty();
        tracker.markDirty();
        list.push_back({cto, windowValues(cto)});
        return StatusCode::Success;
    }
    // At commit: pin, clean, then the transaction's locks fall.
    void commitTransaction(IOTracker& tracker) {
        std::lock_guard<std::mutex> g(jLock);
        for (Held& h : pending[tracker.getID()]) {
            h.cto->PreventEviction();
            h.cto->MarkRangeClean();
            h.committed = true;
        }
    }
    // The spill: the journal's copy reaches the disk, then the pin goes.
    uint32_t spillAll() {
        std::lock_guard<std::mutex> g(jLock);
        uint32_t n = 0;
        for (auto it = pending.begin(); it != pending.end();) {
            bool all = true;
            for (Held& h : it->second) all = all && h.committed;
            if (!all) {
                ++it;
                continue;
            }
            for (Held& h : it->second) {
                for (size_t i = 0; i < h.values.size(); ++i) disk.put(h.cto->mSet, h.cto->mStart + i, h.values[i]);
                h.cto->AllowEviction();
                ++n;
            }
            it = pending.erase(it);
        }
        return n;
    }

    ModelDisk disk;
    std::atomic<uint64_t> reads{0};
    std::atomic<bool> failReads{false};
    bool journalled = false;
    std::mutex jLock;
    std::map<uint64_t, std::vector<Held>> pending;

    using CacheRangeTracker::blocksFor;
};

// Installs the stand-in journal's commit for one tracker during a test.
class JournalScope {
public:
    explicit JournalScope(TestTracker& t) {
        sTracker = &t;
        t.journalled = true;
        IOTracker::journal.commit = [](IOTracker& iot) -> StatusCode {
            sTracker->commitTransaction(iot);
            iot.lockRelease();
            return StatusCode::Success;
        };
    }
    ~JournalScope() {
        IOTracker::journal.commit = nullptr;
        sTracker->journalled = false;
        sTracker = nullptr;
    }
    static inline TestTracker* sTracker = nullptr;
};

// Moves the virtual board clock while it lives.
class ClockPump {
public:
    ClockPump() : mThread([this] {
        while (!mStop.load()) {
            BoardClock::GetInstance().advance(1);
            std::this_thread::yield();
        }
    }) {}
    ~ClockPump() {
        mStop = true;
        mThread.join();
    }

private:
    std::atomic<bool> mStop{false};
    std::thread mThread;
};
