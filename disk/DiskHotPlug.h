#pragma once
// DiskHotPlug: the least the disk layer needs for now. Its thread "tHotPlug"
// reads the drive driver's messages on "/PNPMQ0" and turns them into disk
// events: an insert posts the hot-plug event (add) at once, a removal switches
// the slot's power off and posts the event (remove), a disk seen in an
// unpowered slot gets its power. Not yet done: the 5-second add debounce, the
// staggered power-up, the standby lockout and the power-operation ignore.
#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "platform/drive/DriveCommand.h"
#include "platform/rtos/Rtos.h"

class DiskHotPlug {
public:
    static DiskHotPlug* GetInstance();
    // False when a temperature alert was waiting: no thread is started then.
    bool Initialize();
    void Shutdown();
    void MainLoop();
    void InsertDisk(int slot);
    void RemoveDisk(int slot);
    static void CheckDebounceTimers();
    // The messages handled so far, oldest first (at most 64 kept).
    std::vector<HotPlugMessage> recentMessages();

private:
    DiskHotPlug() = default;
    void postEvent(int slot, bool add);
    std::atomic<bool> mShutdown{false};
    TASK_ID mThread = nullptr;
    std::mutex mLock;
    std::deque<HotPlugMessage> mRecent;
};
