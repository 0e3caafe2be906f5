#pragma once
// Test harness of J1: the replay tags over a battery-backed buffer that
// outlives each "process" (a J1Replay instance), the tag list, and a disk
// model with a volatile cache. At a power cut the disk keeps, for each sector
// written since its last flush, either the new data or the old (seeded), as
// a real drive's cache may; a flush makes everything written durable.
//
// Every host write carries a generation number in each of its sectors; the
// acknowledgement log records the generation of every write that the host
// was told is done (allocateTag returned it PENDING). After a replay, each
// sector must hold the newest acknowledged generation or a newer one.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/ClientRequest.h"
#include "journal/writejournal/J1Replay.h"
#include "journal/writejournal/J1Tag.h"
#include "platform/rtos/BoardClock.h"
#include "util/DataStore.h"

struct J1PowerCut : std::runtime_error {
    J1PowerCut() : std::runtime_error("power cut") {}
};

// Sector -> generation; a sector's data is its generation (the test's pattern).
struct J1DiskModel {
    std::map<std::pair<uint32_t, uint64_t>, uint32_t> medium, cache;
    std::mt19937 rng{1};
    uint32_t flushes = 0;

    void write(uint32_t lun, uint64_t lba, const unsigned char* data, uint32_t sectors) {
        for (uint32_t s = 0; s < sectors; ++s) {
            uint32_t gen;
            std::memcpy(&gen, data + s * 512, 4);
            cache[{lun, lba + s}] = gen;
        }
    }
    void flush() {
        for (auto& [k, v] : cache) medium[k] = v;
        cache.clear();
        flushes++;
    }
    // Each unflushed sector reaches the medium or not, as the seed says.
    void powerCut() {
        for (auto& [k, v] : cache)
            if (rng() & 1) medium[k] = v;
        cache.clear();
    }
    uint32_t read(uint32_t lun, uint64_t lba) const {
        auto c = cache.find({lun, lba});
        if (c != cache.end()) return c->second;
        auto m = medium.find({lun, lba});
        return m == medium.end() ? 0 : m->second;
    }
};

// Moves the virtual board clock on while a test waits in code that delays a
// tick at a time (the drain of the journal); nothing is measured by it.
struct J1Ticker {
    std::atomic<bool> stop{false};
    std::thread thread{[this] {
        while (!stop) {
            BoardClock::GetInstance().advance(1);
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    }};
    ~J1Ticker() {
        stop = true;
        thread.join();
    }
};

class J1Harness : public ::testing::Test {
protected:
    static constexpr uint32_t kJ1Size = 16 * 1024 * 1024;
    static constexpr DiskPackId pack(uint32_t w) {
        DiskPackId id;
        id.word[0] = w;
        id.word[1] = ~w;
        return id;
    }

    void SetUp() override {
        nv.assign(0x10000, 0);
        j1mem.assign(kJ1Size, 0);
        header.assign(_wjtagheader::kSize, 0);
        start();
    }
    void TearDown() override {
        J1Replay::setCutHook(nullptr);
        stop();
    }

    // A process start: the journal over the same battery-backed buffers.
    StatusCode start(DiskPackId id = pack(7), bool readOnly = false) {
        replay = std::make_unique<J1Replay>();
        replay->hooks.flushAllDrives = [this] {
            if (failFlush) return StatusCode(StatusCode::DiskError);
            disk.flush();
            return StatusCode(StatusCode::Success);
        };
        replay->hooks.writeInPlace = [this](ClientRequest& r) {
            if (failWrites) return StatusCode(StatusCode::WriteError);
            unsigned char* p = nullptr;
            uint32_t n = 0;
            r.store->begin(0, p, n);
            disk.write(r.lun, r.lba, p, r.len);
            replayWrites++;
            return StatusCode(StatusCode::Success);
        };
        replay->hooks.postEvent = [this](const std::string& text) { events.push_back(text); };
        replay->hooks.readOnly = [readOnly] { return readOnly; };
        replay->Initialize(nv.data());
        StatusCode status = replay->replay(nv.data(), nv.size(), kJ1Size, id, j1mem.data());
        tags = std::make_unique<J1Tag>(replay.get());
        tags->hooks.oneAtATime = [this] { return oneAtATime; };
        tags->resetTagCache(reinterpret_cast<_wjtagheader*>(header.data()), _wjtagheader::kMaxTags);
        tags->setWaitCount(0);
        return status;
    }
    // The process dies: its memory (requests, lists) goes, the buffers stay.
    void stop() {
        if (tags) tags->Stop();
        tags.reset();
        replay.reset();
        for (auto& r : requests) {
            r->window.clear();
            r->store = nullptr;
        }
        requests.clear();
        next = 0;
    }
    void powerCut() {
        J1Replay::setCutHook(nullptr);
        stop();
        disk.powerCut();
    }

    // One host write as the transport and the request thread make it.
    ClientRequest* hostWrite(uint32_t lun, uint64_t lba, uint32_t sectors, uint32_t gen) {
        uint32_t bytes = sectors * 512;
        if (next + bytes > kJ1Size) next = 0;
        unsigned char* data = j1mem.data() + next;
        next += (bytes + 4095) & ~4095u;
        for (uint32_t s = 0; s < sectors; ++s) {
            std::memset(data + s * 512, 0, 512);
            std::memcpy(data + s * 512, &gen, 4);
        }
        auto req = std::make_unique<ClientRequest>();
        req->lun = lun;
        req->lba = lba;
        req->len = sectors;
        req->origLen = sectors;
        req->setFlag(ClientRequest::kWrite);
        // The transport's store; the process's death takes it (never freed here).
        req->store = new DataStore(data, bytes);
        writes.push_back({lun, lba, sectors, gen});
        req->tag = replay->allocateTag(*req);
        req->setFlag(ClientRequest::kWriteAcked);  // acknowledged from here on
        acked.push_back({lun, lba, sectors, gen});
        EXPECT_NE(tags->SetupTag(*req, gen), nullptr);
        tags->WakeWorker(false);
        requests.push_back(std::move(req));
        return requests.back().get();
    }
    // A write thread's turn: one batch through the "map" to the disk.
    bool writeOneSet(unsigned long minSectors = 0, StatusCode result = StatusCode::Success) {
        if (tags->numStreams() == 0) return false;
        PostWriteElem elem;
        if (!tags->Coalesce(elem, minSectors)) return false;
        lastSet = elem;
        finishSet(elem, result);
        return true;
    }
    void finishSet(PostWriteElem& elem, StatusCode result = StatusCode::Success) {
        for (uint32_t i = 0; i < elem.numTags; ++i) {
            for (WJTAG* t = elem.items[i].head; t; t = t->streamNext)
                if (result == StatusCode::Success) disk.write(t->lun, t->lba, t->data, t->length);
            elem.items[i].request->status = result;
        }
        tags->Destroy(elem);
    }
    void drain() {
        while (writeOneSet()) {
        }
    }

    // Every sector holds the newest acknowledged generation or a newer one.
    void expectNothingLost(const std::string& context) {
        std::map<std::pair<uint32_t, uint64_t>, uint32_t> newestAck;
        for (const auto& w : acked)
            for (uint32_t s = 0; s < w.sectors; ++s) newestAck[{w.lun, w.lba + s}] = std::max(newestAck[{w.lun, w.lba + s}], w.gen);
        for (const auto& [k, gen] : newestAck) {
            uint32_t got = disk.read(k.first, k.second);
            bool newerWrite = false;
            for (const auto& w : writes)
                if (w.lun == k.first && k.second >= w.lba && k.second < w.lba + w.sectors && w.gen == got && got >= gen)
                    newerWrite = true;
            EXPECT_TRUE(newerWrite) << context << ": lun " << k.first << " lba " << k.second << " holds gen " << got
                                    << ", newest acknowledged is " << gen;
        }
    }

    struct Write {
        uint32_t lun;
        uint64_t lba;
        uint32_t sectors, gen;
    };
    std::vector<uint8_t> nv, j1mem, header;
    J1DiskModel disk;
    std::unique_ptr<J1Replay> replay;
    std::unique_ptr<J1Tag> tags;
    std::vector<std::unique_ptr<ClientRequest>> requests;
    std::vector<Write> writes, acked;
    std::vector<std::string> events;
    PostWriteElem lastSet;
    uint32_t next = 0;
    uint32_t replayWrites = 0;
    bool oneAtATime = true;
    bool failFlush = false;
    bool failWrites = false;
};
