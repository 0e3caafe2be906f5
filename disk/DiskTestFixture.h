#pragma once
// Test fixture of the disk layer: a board whose slots are filled per test, a
// DiskManager loaded over them, the hot-plug thread parked so that tests read
// "/PNPMQ0" themselves, and helpers that move the virtual board clock while a
// condition is awaited (no real sleeps, no timings).
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "disk/DiskHotPlug.h"
#include "disk/DiskManager.h"
#include "disk/ErrorPolicy.h"
#include "platform/board/Board.h"
#include "platform/drive/SimDriveController.h"
#include "platform/rtos/BoardClock.h"
#include "system/SystemManager.h"

class DiskTestFixture : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        static bool once = false;
        if (once) return;
        once = true;
        ASSERT_EQ(DiskManager::GetInstance()->Initialize(), StatusCode::Success);
        // Park the hot-plug thread: it takes one message and suspends.
        DiskHotPlug::GetInstance()->Shutdown();
        HotPlugMessage m{99, 0, 0};
        msgQSend(hotPlugQueue(), &m, sizeof m, NO_WAIT, MSG_PRI_NORMAL);
        while (msgQNumMsgs(hotPlugQueue()) != 0) std::this_thread::yield();
    }

    void SetUp() override {
        reset();
    }
    void TearDown() override { reset(); }

    void reset() {
        DiskManager* dm = DiskManager::GetInstance();
        if (dm->loaded()) dm->UnloadDiskPack();
        SystemManager::GetInstance()->setReadOnly(false);
        ctl().forget();
        std::error_code ec;
        std::filesystem::remove_all(Board::GetInstance().path("slots"), ec);
        std::filesystem::remove_all(Board::GetInstance().path("shelf"), ec);
        std::filesystem::create_directories(Board::GetInstance().path("slots"));
        drainMessages();
        ErrorPolicy::GetInstance()->clearPendingErrors();
    }

    static DiskManager* dm() { return DiskManager::GetInstance(); }
    static SimDriveController& ctl() { return SimDriveController::GetInstance(); }
    static MSG_Q_ID hotPlugQueue() { return msgQOpen(kHotPlugQueueName, kHotPlugQueueDepth, sizeof(HotPlugMessage)); }
    static std::vector<HotPlugMessage> drainMessages() {
        std::vector<HotPlugMessage> out;
        HotPlugMessage m;
        while (msgQReceive(hotPlugQueue(), &m, sizeof m, NO_WAIT) == int(sizeof m)) out.push_back(m);
        return out;
    }

    // Creates disks in slots 0.. (sizes as esa-board takes them) and loads.
    void loadDisks(const std::vector<std::string>& sizes) {
        for (size_t s = 0; s < sizes.size(); ++s) {
            if (sizes[s].empty()) continue;
            uint64_t sectors = 0;
            ASSERT_TRUE(SimDisk::parseSize(sizes[s], sectors));
            std::string err;
            ASSERT_TRUE(SimDisk::create(Board::GetInstance().path("slots/" + std::to_string(s)), sectors, {}, err)) << err;
        }
        ctl().forget();
        ASSERT_EQ(dm()->LoadDiskPack(false), StatusCode::Success);
    }

    static void fault(unsigned slot, std::vector<std::string> words) {
        std::string err;
        auto f = DiskFault::parse(words, err);
        ASSERT_TRUE(f) << err;
        ASSERT_TRUE(ctl().addFault(slot, *f, err)) << err;
    }

    // Moves board time on in small steps until pred() holds.
    static void pumpUntil(const std::function<bool()>& pred, uint64_t stepTicks = 6) {
        while (!pred()) {
            BoardClock::GetInstance().advance(stepTicks);
            std::this_thread::yield();
        }
    }
    static void waitUntil(const std::function<bool()>& pred) {
        while (!pred()) std::this_thread::yield();
    }

    // A sector-sized pattern that names its slot, LBA and generation, so that a
    // misplaced or torn sector is recognised.
    static void pattern(uint8_t* p, int slot, uint64_t lba, uint32_t generation) {
        for (unsigned i = 0; i < kSectorSize; i += 16) {
            uint64_t a = (uint64_t(slot) << 56) | lba, b = (uint64_t(generation) << 32) | i;
            std::memcpy(p + i, &a, 8);
            std::memcpy(p + i + 8, &b, 8);
        }
    }

public:
    struct AlignedBuffer {
        explicit AlignedBuffer(size_t bytes) : size(bytes), p(static_cast<uint8_t*>(std::aligned_alloc(32, bytes))) {
            std::memset(p, 0, bytes);
        }
        ~AlignedBuffer() { std::free(p); }
        size_t size;
        uint8_t* p;
    };
};
