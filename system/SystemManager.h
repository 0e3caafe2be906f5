#pragma once
// SystemManager: owns the life of the system. It decides in which order the
// managers are initialised, given a disk pack and relieved of it; it keeps the
// record of how the last power-up ended (the saved state in Zone 0 and the
// last reboot reason on the board), and drives the boot progress on the LED
// bar. Initialize runs once per process, on the boot thread; LoadDiskPack and
// UnloadDiskPack come in pairs.
#include <cstdint>
#include <mutex>
#include <ostream>
#include <string>

#include "system/EventManager.h"
#include "util/ReentrantLockObject.h"
#include "util/StatusCode.h"
#include "util/Trace.h"

extern Trace smErrorTrace;  // systemmanager:error:flow
extern Trace smVrbhTrace;   // systemmanager:vrbh:flow

class HostLbaTracker;
class ZoneMetaDataTracker;
class RegionMetaDataTracker;
class DiskLBAMetaDataTracker;
class EventLogManager;
class Sched;
class DebugClass;
class DiskManager;
class RegionManager;
class ZoneManager;
class Zone0InfoTable;
class CATManager;
class ClusterManager;
class DiskUtilizationDaemon;
class HAManager;
class J2Manager;
class BitmapBlockUpdatesMonitor;
class OnDiskStore;
class ScavengerTicker;
class ClusterScavenger;
class SystemPolicy;
class LayoutManager;
class HRManager;
class nvram;

enum MountState { BOOTING = 0, RUNNING = 1, STANDBY = 2, MOUNT_UNKNOWN = 3 };
enum BatState { BAT_OFF = 0, BAT_ON = 1, BAT_DEFAULT = 2 };

class SystemManager {
public:
    static SystemManager* GetInstance();

    bool Initialize(bool clearDisk, bool redirectOutput, bool noOutput, bool clearButton);
    bool LoadDiskPack(bool clearDisk);
    bool LoadDiskPack2();
    void prepForPackLoad();
    bool UnloadDiskPack();
    StatusCode LoadDiskPackReadOnly();
    StatusCode UnloadDiskPackReadOnly();

    void bootCheckpoint(std::string what, bool reset);
    void ReportFeatures();
    void ReportDate();
    void ReportDateAndFeatures();

    void AddDisk(unsigned short slot, unsigned short logicalDisk);
    void ExpungeDisk(unsigned short slot, unsigned short logicalDisk);
    void RemoveDisk(unsigned short slot, unsigned short logicalDisk);
    [[noreturn]] void nonViableDiskPack(std::string reporter);
    bool hotPlugAllowed() const { return !mInStandby; }
    bool hotPlugIgnore() const { return mHotPlugIgnore; }

    void GetLastRebootReason(char* buffer, unsigned length);
    void SetLastRebootReason(const char* reason);

    // The orderly ways out (the full standby path comes with the power Part).
    [[noreturn]] void safeReboot(const char* reason);
    [[noreturn]] void Reboot(const char* reason);
    // A temperature alert (hot-plug thread, console "setOvertemp"): the system
    // halts with its pack written out and its disks off, and never resumes.
    void overTempHalt();
    // The user's power switch: an orderly unload, then the power goes.
    [[noreturn]] void powerSwitchShutdown();
    void DupFlashImage();

    bool packLoaded() const { return mPackLoaded; }
    bool readOnly() const { return mReadOnly; }
    void setReadOnly(bool on) { mReadOnly = on; }
    bool hostReadOnly() const { return mHostReadOnly; }
    bool allowBgThreads() const { return mAllowBgThreads; }
    void setAllowBgThreads(bool on) { mAllowBgThreads = on; }
    bool noHost() const { return mNoHost; }
    bool previousShutdownClean() const { return mPreviousShutdownClean; }
    bool clearDiskRequested() const { return mClearDiskRequested; }
    void setClearDiskRequested(bool on) { mClearDiskRequested = on; }
    unsigned long maxLuns() const { return mMaxLuns; }
    // A transport came up (0) or went down (1): posted as eSysMgr.
    void transportStateChange(int state);
    // The LUN table changed while a pack is loaded.
    void setLunConfigChanged() { mLunConfigChanged = true; }
    bool lunConfigChanged() const { return mLunConfigChanged; }
    // The host application has seen the unclean shutdown.
    void clearBadShutdown() { mPreviousShutdownClean = true; }
    bool esxCertMode() const { return mEsxCertMode; }
    int systemState() const { return mSystemState; }
    const std::string& version() const { return mVersion; }
    const std::string& buildDate() const { return mBuildDate; }
    uint64_t bootTick() const { return mBootTick; }

    DiskLBAMetaDataTracker* diskLbaTracker() const { return pDiskLBAMetaDataTracker; }

    // Test access: the state a fresh process starts with.
    void resetForTest();

private:
    SystemManager();
    bool secondStageLoadDiskPack2();
    void loadSavedState(MountState& mount, BatState& battery);
    void saveState(MountState mount, BatState battery);
    void configureConsole(bool redirectOutput, bool noOutput);
    void setupNetwork(bool clearDisk, bool clearButton);
    bool readPmuState(struct PmuStateRecord& record);
    static void alarmEvent(EVENT_TYPE type, void* context, unsigned long value, void*);
    static void doSmEvent(EVENT_TYPE type, void* context, unsigned long value, void*);

    HostLbaTracker* pHostLbaCacheTracker = nullptr;
    ZoneMetaDataTracker* pMetaDataTracker = nullptr;
    RegionMetaDataTracker* pRegionMetaDataTracker = nullptr;
    DiskLBAMetaDataTracker* pDiskLBAMetaDataTracker = nullptr;
    EventLogManager* mEventLog = nullptr;
    EventLogManager* mDiskLog = nullptr;
    Sched* mSched = nullptr;
    DebugClass* mDebug = nullptr;
    EventManager* mEventManager = nullptr;
    DiskManager* mDiskManager = nullptr;
    RegionManager* mRegionManager = nullptr;
    ZoneManager* mZoneManager = nullptr;
    Zone0InfoTable* mZone0InfoTable = nullptr;
    CATManager* mCATManager = nullptr;
    ClusterManager* mClusterManager = nullptr;
    DiskUtilizationDaemon* mDiskUtilizationDaemon = nullptr;
    HAManager* mHAManager = nullptr;
    J2Manager* mJ2Manager = nullptr;
    BitmapBlockUpdatesMonitor* mBitmapBlockUpdatesMonitor = nullptr;
    OnDiskStore* mOnDiskStore = nullptr;
    ScavengerTicker* mScavengerTicker = nullptr;
    ClusterScavenger* mClusterScavenger = nullptr;
    SystemPolicy* mSystemPolicy = nullptr;
    LayoutManager* mLayoutManager = nullptr;
    HRManager* mHRManager = nullptr;
    nvram* mNvram = nullptr;
    int mEsaRegisterFd = -1;
    bool mPackLoaded = false;
    bool mReadOnlyLoaded = false;
    bool mPreviousShutdownClean = true;
    std::string mBuildDate, mVersion, mSpare;
    bool mInStandby = false, mStandbyRequested = false;
    ReentrantLockObject rStandbyLock{"rStandbyLock", 26};
    bool mHotPlugIgnore = false;
    int mSystemState = 0;
    bool mNoHost = false;
    bool mDeferSmEvents = false;
    bool mAllowBgThreads = true;
    bool mEsxCertMode = false;
    unsigned long mMaxLuns = 16;
    bool mHostReadOnly = false;
    bool mReadOnly = false;
    bool mNightMode = false;
    bool mLunConfigChanged = false;
    bool mClearDiskRequested = false;
    unsigned char* mZone0Buffer = nullptr;
    unsigned mFanHistoryIndex = 0;
    unsigned char mFanHistory[120] = {};
    unsigned mAmbientHistoryIndex = 0;
    unsigned char mAmbientHistory[120] = {};

    // bootCheckpoint state
    int mLedCount = 10;
    uint32_t mFilled = 0;
    int mPosition = 0;
    uint64_t mCheckpointStamp = 0;
    bool mCheckpointStamped = false;
    uint64_t mBootTick = 0;
};
