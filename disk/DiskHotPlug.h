#pragma once
// DiskHotPlug: turns the drive driver's raw messages on "/PNPMQ0" into
// debounced disk events, and switches power to slots. Its thread "tHotPlug"
// reads the messages; the driver's periodic callback CheckDebounceTimers moves
// each slot's DebounceState on.
//
// Per slot: idle (2); an insert starts a 5-second debounce (0) at whose end the
// add event is posted; a disk found in an unpowered slot waits for its turn to
// be powered (1), turns 8 seconds apart. A removal from idle powers the slot
// off and posts the remove event at once; during a debounce it does nothing
// (the add fails on its own). InsertDisk, RemoveDisk and CheckDebounceTimers
// run on "tHotPlug" only, so the states need no lock.
#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <ostream>
#include <vector>

#include "disk/DriveAdapter.h"
#include "platform/drive/DriveCommand.h"
#include "platform/rtos/Rtos.h"

class DiskHotPlug {
public:
    static constexpr uint32_t kIdle = 2, kDebouncing = 0, kPowerUpDelayed = 1;
    static constexpr unsigned kDebounceSeconds = 5;
    static constexpr unsigned kPowerUpFirstSeconds = 1, kPowerUpSpacingSeconds = 8;

    struct DebounceState {
        uint32_t state = kIdle;
        uint16_t slot = 0;
        uint32_t tick = 0;  // start of the debounce, or the tick at which to power up
    };

    static DiskHotPlug* GetInstance();
    // False when a temperature alert was waiting: no thread is started then.
    bool Initialize();
    void Shutdown();
    void MainLoop();
    void InsertDisk(int slot);
    void RemoveDisk(int slot);
    // A disk-change message: the slots with a disk and no power get theirs, staggered.
    void DelayPowerUp();
    static void CheckDebounceTimers();

    const DebounceState& debounceState(int slot) const { return mStates[slot]; }
    // Hot-plug events posted per slot since start (adds, removes).
    unsigned addsPosted(int slot) const { return mAdds[slot]; }
    unsigned removesPosted(int slot) const { return mRemoves[slot]; }
    // The messages handled so far, oldest first (at most 64 kept).
    std::vector<HotPlugMessage> recentMessages();
    void Dump(std::ostream& out);
    // Every slot idle again, power-up turns from now (tests).
    void resetStates();

private:
    DiskHotPlug();
    void postEvent(int slot, bool add);
    void checkTimers();
    // False when hot plug is ignored for a slot power operation; reboots in standby.
    bool admitted(int slot, const char* operation);
    std::atomic<bool> mShutdown{false};
    TASK_ID mThread = nullptr;
    DebounceState mStates[kMaxDriveSlots];
    uint32_t mNextPowerUpTick = 0;
    std::atomic<unsigned> mAdds[kMaxDriveSlots] = {}, mRemoves[kMaxDriveSlots] = {};
    std::mutex mLock;
    std::deque<HotPlugMessage> mRecent;
};
