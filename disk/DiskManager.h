#pragma once
// DiskManager: the front of the physical disk layer. It owns the eight
// DiskObjects (one per slot, alive for the whole run) and their request
// threads, the presence and ready bitmaps ("rDMLock"), the temperature and
// busy history rings, the one-shot fault injector and the timing
// accumulators. Every status the layers above see has passed
// DiskErrorHandler. Lock order: a slot's "HotPlugSerialLck", then "rDMLock".
//
// Memory is handed over without a copy: a DataWindow's contiguous pieces, in
// window order, become the scatter list (DiskPane lists are the same below
// the window). A window of more than 256 pieces takes several commands on the
// synchronous paths and is refused with DM_SGLTooLong on the NoWait and
// parallel paths. Writes in the system's read-only mode succeed and touch nothing.
#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <ostream>
#include <unordered_map>

#include "disk/DiskIoRequest.h"
#include "disk/DiskObject.h"
#include "disk/DiskSmartInfo.h"
#include "include/ManagerBase.h"
#include "platform/rtos/Rtos.h"
#include "system/EventManager.h"
#include "util/DataWindow.h"
#include "util/ErrorInjection/ErrorInjection.h"
#include "util/IOTracker.h"
#include "util/PerfAccumulator.h"

class DiskManager : public ManagerBase {
public:
    static constexpr int kSlots = 8;
    static constexpr int kHistoryLength = 120;
    static constexpr int kMaxParallel = 8;
    static constexpr int kDirectionWrite = 1, kDirectionRead = 2;
    // The largest disk taken: 2^32 sectors (2 TiB) plus 1 GiB of sectors.
    static constexpr uint64_t kUnsupportedSectors = 0x100200000ull;

    static DiskManager* GetInstance();

    StatusCode Initialize() override;
    StatusCode LoadDiskPack() override { return LoadDiskPack(false); }
    StatusCode LoadDiskPack(bool clearDisk);
    StatusCode UnloadDiskPack() override;

    // Transaction-aware forms for the layers above.
    StatusCode ReadData(int slot, const DataWindow& window, uint64_t lba, IOTracker& tracker);
    StatusCode WriteData(int slot, const DataWindow& window, uint64_t lba, IOTracker& tracker, uint32_t flags);
    // The raw write (J2 spill workers call it directly).
    StatusCode WriteData(int slot, const DataWindow& window, uint64_t lba, uint32_t flags);
    StatusCode ReadDataNoWait(int slot, const DataWindow& window, uint64_t lba, __DiskQReqStruct* r);
    StatusCode WriteDataNoWait(int slot, const DataWindow& window, uint64_t lba, __DiskQReqStruct* r);
    // The same over pane lists.
    StatusCode ReadData(int slot, const DiskPane* panes, size_t paneCount, uint64_t lba, IOTracker& tracker);
    StatusCode WriteData(int slot, const DiskPane* panes, size_t paneCount, uint64_t lba, IOTracker& tracker,
                         uint32_t flags);
    StatusCode WriteData(int slot, const DiskPane* panes, size_t paneCount, uint64_t lba, uint32_t flags);
    // Single-buffer forms.
    StatusCode ReadData(int slot, void* buffer, uint64_t lba, uint32_t sectors);
    StatusCode WriteData(int slot, void* buffer, uint64_t lba, uint32_t sectors);
    // Enqueue and return; request->data must hold the caller's DiskSGL.
    StatusCode ReadDataNoWait(int slot, const DiskPane* panes, size_t paneCount, uint64_t lba, __DiskQReqStruct* r);
    StatusCode WriteDataNoWait(int slot, const DiskPane* panes, size_t paneCount, uint64_t lba, __DiskQReqStruct* r);
    StatusCode ParallelDiskRead(DiskIoRequest* requests, int count) { return ParallelDiskIO(kDirectionRead, requests, count); }
    StatusCode ParallelDiskWrite(DiskIoRequest* requests, int count);
    StatusCode ParallelDiskIO(int direction, DiskIoRequest* requests, int count);

    StatusCode Flush(int slot);
    StatusCode FlushAllDrives();
    // Writes every drive cache out straight through the driver (shutdown, assertion).
    void FlushAllDisksBypassQueue();
    void ResetAllDrives();

    StatusCode DiskErrorHandler(int slot, uint16_t command, uint64_t lba, StatusCode status);

    StatusCode QualifyDisk(int slot);
    int RunDiskTest(int slot);
    StatusCode AddDisk(int slot);
    StatusCode RemoveDisk(int slot);
    bool RepairDisk(int slot);
    static void DoHotPlugDisk(EVENT_TYPE type, void* context, unsigned long value, void*);

    uint64_t GetDriveCapacity(int slot);
    bool DriveIsPresent(int slot);
    bool DriveIsReady(int slot);
    bool DriveIsReadyNoLock(int slot) const { return slot >= 0 && slot < kSlots && (mReadyBitmap.load() >> slot & 1); }
    uint32_t readyBitmap() const { return mReadyBitmap; }
    int readyCount();
    int GetDrivesInfo(diskSmartInfo* info, bool cached);
    uint8_t GetCachedTemperature(int slot);
    void RecordTemperatureHistory();
    void RecordDiskUtilization();
    uint32_t GetDiskBusyPercentage(int slot);
    int FailedDiskCount();
    void SetDiskState(int slot, uint16_t state);
    const DiskIdentifier* GetDiskWWN(int slot);
    std::unordered_map<int, const DiskIdentifier*> GetDiskWWNMap();
    DiskObject* diskObject(int slot) { return slot >= 0 && slot < kSlots ? mDisks[slot].get() : nullptr; }

    // The one-shot fault injector: the next read or write on the slot yields DM_MediaError.
    void InjectOneShotFault(int slot, bool read, bool write);
    bool loaded() const { return mLoaded; }

    void Dump(std::ostream& out);
    void PerfInfo(std::ostream& out);
    void DumpHistory(std::ostream& out, bool temperature);

private:
    DiskManager();
    void refreshPresence();
    void requestThread(int* slotArgument);
    void reportDiskFail(int slot);
    void notifyPackLayers(int slot, bool add);
    bool oneShotFault(int slot, bool write);
    StatusCode injected(int slot, bool write);
    StatusCode readPanes(int slot, const DiskPane* panes, size_t n, uint64_t lba);
    StatusCode writePanes(int slot, const DiskPane* panes, size_t n, uint64_t lba);
    void setReady(int slot, bool ready);
    static bool noDiskWrites();

    std::recursive_mutex mDMLock;  // "rDMLock", shared with the presence tracker
    std::array<std::unique_ptr<DiskObject>, kSlots> mDisks;
    std::array<TASK_ID, kSlots> mThreads{};
    bool mInitialized = false;
    int mDriveCount = 0;
    int mReadyCount = 0;
    bool mLoaded = false;
    struct PhysicalDiskTracker {
        uint32_t presence = 0;
        int count = 0;
    } mPresence;
    std::atomic<uint32_t> mReadyBitmap{0};

    uint8_t mTemperatureHistory[kHistoryLength] = {};
    int mTemperatureIndex = 0;
    uint8_t mBusyHistory[kSlots][kHistoryLength] = {};
    int mBusyIndex = 0;

    std::mutex mFaultLock;
    bool mFailNextRead = false, mFailNextWrite = false;
    int mFaultSlot = -1;

    PerfAccumulator mReadTimes, mWriteTimes, mParallelReadTimes, mParallelWriteTimes, mFlushTimes;
    ErrorInjection mInjection{"dm"};
    int mReadPoints[3][kSlots];
    int mWritePoints[3][kSlots];
};
