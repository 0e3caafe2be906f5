// SystemManager::Initialize: everything from process start to the first pack
// load, in the fixed order the rest of the system relies on.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <new>
#include <iostream>

#include "background/DataScrubber.h"
#include "background/DeadlockWatchdog.h"
#include "background/Defragmenter.h"
#include "background/DiskUtilizationDaemon.h"
#include "background/IdleMonitor.h"
#include "background/Watchdog.h"
#include "cache/DiskLBAMetaDataTracker.h"
#include "cache/HostLbaTracker.h"
#include "cache/RegionMetaDataTracker.h"
#include "cache/ZoneMetaDataTracker.h"
#include "cache/CacheTrackerObject.h"
#include "util/DataWindow.h"
#include "util/WriteBuffer.h"
#include "cat/CATManager.h"
#include "cat/ClusterManager.h"
#include "disk/DiskManager.h"
#include "disk/DiskPackManager.h"
#include "disk/ErrorPolicy.h"
#include "host/Dispatcher.h"
#include "host/HRManager.h"
#include "host/TopEnd.h"
#include "host/USBTransport.h"
#include "journal/j2/J2Manager.h"
#include "journal/writejournal/J1Tag.h"
#include "journal/writejournal/WriteJournal.h"
#include "management/EventLogManager.h"
#include "management/HAManager.h"
#include "management/SystemPolicy.h"
#include "platform/board/Board.h"
#include "platform/board/BoardServices.h"
#include "platform/flash/Flash.h"
#include "platform/rtos/Rtos.h"
#include "region/RegionManager.h"
#include "scavenger/BitmapBlockUpdatesMonitor.h"
#include "scavenger/ClusterScavenger.h"
#include "scavenger/OnDiskStore.h"
#include "scavenger/ScavengerTicker.h"
#include "system/CalServ.h"
#include "system/EventManager.h"
#include "system/FlashConfigData.h"
#include "system/SystemManager.h"
#include "system/SystemSignalHandler.h"
#include "system/nvram.h"
#include "system/scheduler/Sched.h"
#include "util/Assert.h"
#include "util/CrashPoint.h"
#include "util/DebugClass.h"
#include "util/PrintHelpers.h"
#include "util/Trace.h"
#include "zone/LayoutManager.h"
#include "zone/Zone0InfoTable.h"
#include "zone/ZoneManager.h"

namespace {

std::string batteryTime(uint32_t tenthsOfMinute) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%03u:%02u", tenthsOfMinute / 600, (tenthsOfMinute / 10) % 60);
    return buf;
}

// Runs one manager step: "<name> Initialize failed" ends Initialize, success
// moves the boot checkpoint on.
bool initStep(const char* name, StatusCode status) {
    CrashPoint((std::string("init.") + name).c_str());
    if (status != StatusCode::Success) {
        ESA_CONSOLE(name << " Initialize failed");
        return false;
    }
    SystemManager::GetInstance()->bootCheckpoint(std::string(name) + " Initialize passed", false);
    return true;
}

}  // namespace

void SystemManager::configureConsole(bool redirectOutput, bool noOutput) {
    if (!redirectOutput) return;
    std::fflush(stdout);
    int fd = boardOpen("diagLog", 2);
    int sink = fd >= 0 ? diagLogDescriptor(fd) : -1;
    if (sink < 0) return;
    ::dup2(sink, 1);
    ::dup2(sink, 2);
    if (noOutput) {
        ESA_CONSOLE("Disable stdout (log only)");
        boardIoctl(fd, DiagLogIoctl::SetMode, DiagLogIoctl::LogOnly);
    } else {
        ESA_CONSOLE("Output redirected to stdout & log");
        boardIoctl(fd, DiagLogIoctl::SetMode, DiagLogIoctl::LogAndConsole);
    }
    std::cout << std::unitbuf;
}

void SystemManager::setupNetwork(bool clearDisk, bool clearButton) {
    FlashConfigData* flash = FlashConfigData::GetInstance();
    unsigned long useDefault = 0, address = 0, subnet = 0;
    bool complete = flash->GetValueUint32(FlashConfigData::NetConfigUseDefault, useDefault) == StatusCode::Success &&
                    flash->GetValueUint32(FlashConfigData::NetConfigIPAddr, address) == StatusCode::Success &&
                    flash->GetValueUint32(FlashConfigData::NetConfigSubnet, subnet) == StatusCode::Success;
    bool clearConfig = false;
    if (clearDisk) {
        unsigned long value = 0;
        flash->GetValueUint32(FlashConfigData::NetClearConfig, value);
        if (value == 1) {
            ESA_CONSOLE("SM::Initialize: INFO: Network Clear Config is set to 0x1 in Flash Config");
            flash->SetValueUint32(FlashConfigData::NetClearConfig, 0);
            clearConfig = true;
        }
    }
    bool reset = false;
    if (clearButton || clearConfig) {
        useDefault = 1;
        address = 0xa9fe0100;
        subnet = 0xffff0000;
        flash->SetValueUint32(FlashConfigData::NetConfigUseDefault, useDefault);
        flash->SetValueUint32(FlashConfigData::NetConfigIPAddr, address);
        flash->SetValueUint32(FlashConfigData::NetConfigSubnet, subnet);
        reset = true;
    }
    if (!complete && !reset) return;
    int fd = boardOpen("/networkinfo", 2);
    if (fd < 0) {
        ESA_CONSOLE("SM::Initialize: ERROR: Unable to open /networkinfo");
        return;
    }
    NetworkInfoRecord current{};
    int rc = boardIoctl(fd, NetworkInfoIoctl::Read, intptr_t(&current));
    if (rc < 0) {
        ESA_CONSOLE("SM::Initialize: ERROR: Ioctl to get net info failed with error: " << rc);
    } else if (current.useDefault == useDefault && current.address == address && current.subnet == subnet) {
        ESA_CONSOLE("SM::Initialize: INFO: No need to set Network Info since it matches Lx Core");
    } else {
        if (useDefault) ESA_CONSOLE("SM::Initialize: INFO: Setting iSCSI to use Default IP address and Subnet");
        else ESA_CONSOLE("SM::Initialize: INFO: Setting iSCSI Network IP address to " << HexPrint(address) << " "
                                                                                      << HexPrint(subnet));
        NetworkInfoRecord wanted{uint32_t(useDefault), uint32_t(address), uint32_t(subnet)};
        rc = boardIoctl(fd, NetworkInfoIoctl::WriteAtStart, intptr_t(&wanted));
        if (rc < 0) ESA_CONSOLE("SM::Initialize: ERROR: Ioctl to set net info failed with error: " << rc);
        else ESA_CONSOLE("SM::Initialize: INFO: Successfully set Network Info from Vx To Lx Core");
    }
    boardClose(fd);
}

bool SystemManager::readPmuState(PmuStateRecord& record) {
    if (boardSyscall(BoardSyscall::Pmu, PmuOp::ReadState, intptr_t(&record)) < 0) {
        ESA_CONSOLE("**SystemManager**" << "Get PMU state syscall failed");
        return false;
    }
    return true;
}

bool SystemManager::Initialize(bool clearDisk, bool redirectOutput, bool noOutput, bool clearButton) {
    mBootTick = tick64Get();
    // 1. Memory options and on-processor time accounting: the host's allocator
    //    and the board clock stand in for both.
    // 2.
    configureConsole(redirectOutput, noOutput);
    // 3.
    bootCheckpoint("Console configured", false);
    ReportDateAndFeatures();
    // 4.
    installSystemSignalHandler();
    bootCheckpoint("After signals", false);
    // 5.
    if (clearDisk) {
        for (int i = 0; i < 8; ++i) {
            boardIoctl(mEsaRegisterFd, EsaRegisterIoctl::LedBar, (i & 1) ? 0x3ff03c0 : 0x3ff000f);
            taskDelay(sysClkRateGet() / 4);
        }
        ESA_CONSOLE("\n####################################################\n"
                    "#####            C L E A R   D I S K           #####\n"
                    "####################################################");
        ESA_CONSOLE("The CLEARDISK flag is set - the disks will be cleared");
    }
    // 6.
    mDebug = DebugClass::GetInstance();
    Watchdog::GetInstance();
    FlashConfigData* flash = FlashConfigData::GetInstance();
    flash->DisplayConfigData(coutTrace);
    unsigned long value = 0;
    if (flash->GetValueUint32(FlashConfigData::NoHost, value) == StatusCode::Success && value) {
        ESA_CONSOLE("Host connection bringup DISABLED");
        mNoHost = true;
    }
    value = 0;
    if (flash->GetValueUint32(FlashConfigData::HostReadOnly, value) == StatusCode::Success && value) {
        ESA_CONSOLE("Host READ-ONLY mode");
        mHostReadOnly = true;
    }
    value = 0;
    if (flash->GetValueUint32(FlashConfigData::ReadOnly, value) == StatusCode::Success && value) {
        ESA_CONSOLE("READ-ONLY mode");
        mReadOnly = true;
    }
    value = 0;
    if (flash->GetValueUint32(FlashConfigData::NoBgThreads, value) == StatusCode::Success && value) {
        ESA_CONSOLE("Background threads DISABLED");
        mAllowBgThreads = false;
    }
    // 7.
    mSched = Sched::GetInstance();
    mEventManager = EventManager::GetInstance();
    mDiskManager = DiskManager::GetInstance();
    mRegionManager = RegionManager::GetInstance();
    mZoneManager = ZoneManager::GetInstance();
    mZone0InfoTable = Zone0InfoTable::GetInstance();
    mCATManager = CATManager::GetInstance();
    mClusterManager = ClusterManager::GetInstance();
    mHAManager = HAManager::GetInstance();
    mDiskUtilizationDaemon = DiskUtilizationDaemon::GetInstance();
    mBitmapBlockUpdatesMonitor = BitmapBlockUpdatesMonitor::GetInstance();
    mOnDiskStore = OnDiskStore::GetInstance();
    mScavengerTicker = ScavengerTicker::GetInstance();
    mClusterScavenger = ClusterScavenger::GetInstance();
    mSystemPolicy = SystemPolicy::GetInstance();
    mLayoutManager = LayoutManager::GetInstance();
    mHRManager = HRManager::GetInstance();
    mNvram = nvram::GetInstance();
    mJ2Manager = J2Manager::GetInstance();
    mDebug->Initialize();
    bootCheckpoint("Debug init", false);
    // 8. CRC tables need no set-up here. The object pools of the steady
    //    state, sized once; an exhausted pool falls back on the heap and
    //    counts it (poolInfo).
    ObjectPool<CacheRangeTracker::CacheRangeObject>::Initialize(8000);
    ObjectPool<CacheTrackerObject>::Initialize(4000);
    ObjectPool<DataStore>::Initialize(10000);
    ObjectPool<DataWindow::DataPane>::Initialize(10000);
    ObjectPool<MemoryBlock>::Initialize(300);
    // 9. The uncached blocks' region, and the regions the board shares with
    //    the target side. "/SHJ1" is opened at the write-buffer partition's
    //    full size: on this board the process creates it, and the partition
    //    (host write data, battery-backed) is adopted as it stands after a
    //    restart.
    Board& board = Board::GetInstance();
    void* uncached = board.openRegion("/UncachedPool", 0x962580);
    ESA_ASSERT_PTR(uncached, !=, nullptr);
    char line[128];
    std::snprintf(line, sizeof line, "Creating MemoryBlockUncached pool at baseAddress %08lx to %08lx\n",
                  (unsigned long)uintptr_t(uncached), (unsigned long)(uintptr_t(uncached) + 0x962580));
    coutTrace.writeLine(line);
    ObjectPool<MemoryBlockUncached>::Initialize(300);
    struct {
        const char* name;
        size_t size;
    } regions[] = {{"/SHJ1", kJournalMemoryBytes}, {"/SHMQ", 0x1000}, {"/SHVX", 0x200000}};
    for (auto& r : regions) {
        void* base = board.openRegion(r.name, r.size);
        std::snprintf(line, sizeof line, "%s @ 0x%8.8lx\n", r.name + 1, (unsigned long)uintptr_t(base));
        coutTrace.writeLine(line);
        if (base && std::string(r.name) == "/SHJ1")
            WriteBuffer::GetInstance().SetWPartitionStart(static_cast<unsigned char*>(base), uint32_t(r.size), nullptr);
    }
    // 10.
    setupNetwork(clearDisk, clearButton);
    // 11.
    value = 0;
    if (flash->GetValueUint32(FlashConfigData::ESXCert, value) == StatusCode::Success && value) {
        ESA_CONSOLE("ESX Certification Mode ENABLED");
        mMaxLuns = 32;
        mEsxCertMode = true;
        int fd = boardOpen("/networkinfo", 2);
        if (fd >= 0) {
            boardIoctl(fd, NetworkInfoIoctl::EsxMode, 1);
            boardClose(fd);
        }
    }
    // 12.
    mZone0Buffer = new (std::nothrow) unsigned char[4096];
    if (!mZone0Buffer) {
        ESA_CONSOLE("SM::Initialize: CAN'T MALLOC ZONE0 BUFFER");
        return false;
    }
    mFanHistoryIndex = 0;
    std::fill(std::begin(mFanHistory), std::end(mFanHistory), 0);
    // 13.
    if (!initStep("IdleMonitor", IdleMonitor::GetInstance()->Initialize())) return false;
    // 14.
    mEventManager->Initialize();
    // 15.
    mEventLog = EventLogManager::EventLog();
    if (mEventLog->Initialize(4, "EventLog", "/RFA/eventLog") != StatusCode::Success) {
        ESA_CONSOLE("EventLogManager Initialize failed");
        return false;
    }
    bootCheckpoint("EventLogManager Initialize passed", false);
    // 16.
    PmuStateRecord pmu{};
    if (!readPmuState(pmu)) return false;
    if (pmu.stateFlags & (1u << 4)) SetLastRebootReason("PMU reports AC Power Failure");
    else if (pmu.stateFlags & (1u << 5)) SetLastRebootReason("PMU reports Power Switch Shutdown");
    // 17.
    char reason[257] = {};
    GetLastRebootReason(reason, sizeof reason);
    mEventLog->PostEvent(std::string("RebootReason: ") + reason);
    SetLastRebootReason("Unexpected reboot - possible OS crash during bootup");
    // 18.
    struct stat st;
    if (::stat(flashPath("/RFA/TDCrashDiag").c_str(), &st) == 0)
        mEventLog->PostEvent("SM: Crashdump flash file exists, size = " + std::to_string(st.st_size));
    // 19.
    mDiskLog = EventLogManager::DiskLog();
    if (mDiskLog->Initialize(12, "DiskLog ", "") != StatusCode::Success) {
        ESA_CONSOLE("DiskLogManager Initialize failed");
        return false;
    }
    // 20.
    PmuVersionRecord versions{};
    if (boardSyscall(BoardSyscall::Pmu, PmuOp::ReadVersions, intptr_t(&versions)) < 0) {
        ESA_CONSOLE("Get PMU versions syscall failed");
        return false;
    }
    std::snprintf(line, sizeof line, "SM: PMU current version = %d.%03d.%05d desired version = %d.%03d.%05d\n",
                  versions.currentMajor, versions.currentMinor, versions.currentBuild, versions.desiredMajor,
                  versions.desiredMinor, versions.desiredBuild);
    ESA_TRACE(smVrbhTrace, line);
    if (versions.currentMajor != versions.desiredMajor || versions.currentMinor != versions.desiredMinor ||
        versions.currentBuild != versions.desiredBuild) {
        std::snprintf(line, sizeof line, "SM: PMU reprogram skipped - still running ver %d.%03d.%05d",
                      versions.currentMajor, versions.currentMinor, versions.currentBuild);
        mEventLog->PostEvent(line);
    }
    // 21.
    bool onBattery = false;
    if (mHRManager->getBattBootState(onBattery) && onBattery) {
        if (!readPmuState(pmu)) return false;
        mEventLog->PostEvent("SM: System was on backup battery for " + batteryTime(pmu.latestBatteryTime) +
                             " (hhh:mm), Max = " + batteryTime(pmu.longestBatteryTime) +
                             " Total = " + batteryTime(pmu.totalBatteryTime) + " in " +
                             std::to_string(pmu.backupCycles) + " cycles");
    }
    // 22.
    if (!readPmuState(pmu)) return false;
    if (pmu.stateFlags & (1u << 2)) {
        ESA_CONSOLE("\n**************************************************************"
                    "\nDRAM backup battery was depleted - journal contents lost - possible metadata corruption.\n"
                    "**************************************************************");
        mEventLog->PostEvent("SM: FAILURE: DRAM backup battery depleted after " + batteryTime(pmu.latestBatteryTime) +
                             " (hhh:mm)");
    } else if (pmu.stateFlags & (1u << 0)) {
        ESA_CONSOLE("\n**************************************************************"
                    "\nDRAM backup battery has failed - journal contents lost - possible metadata corruption.\n"
                    "**************************************************************");
        mEventLog->PostEvent("SM: FAILURE: DRAM backup battery failed after " + batteryTime(pmu.latestBatteryTime) +
                             " (hhh:mm)");
    }
    // 23.
    mSystemPolicy->Initialize();
    // 24.
    bootCheckpoint("SM::ResetFirmwareBootCount", false);
    boardIoctl(mEsaRegisterFd, EsaRegisterIoctl::ResetBootCount, 0);
    // 25, 26.
    if (mNvram->Initialize(clearDisk) != StatusCode::Success) {
        ESA_CONSOLE("NVRAM Initialize failed");
        return false;
    }
    bootCheckpoint("NVRAM Initialize passed", false);
    if (mJ2Manager->Initialize() != StatusCode::Success) {
        ESA_CONSOLE("J2 Initialize failed");
        return false;
    }
    bootCheckpoint("J2 Initialize passed", false);
    // 27.
    taskPrioritySet(nullptr, 120);
    // 28.
    if (!initStep("HRManager", mHRManager->Initialize())) return false;
    if (!initStep("EPM", ErrorPolicy::GetInstance()->Initialize())) return false;
    if (!initStep("DiskManager", mDiskManager->Initialize())) return false;
    if (!initStep("DiskPackManager", DiskPackManager::GetInstance()->Initialize())) return false;
    if (!initStep("RegionManager", mRegionManager->Initialize())) return false;
    if (!initStep("ZoneManager", mZoneManager->Initialize())) return false;
    if (!initStep("LayoutManager", mLayoutManager->Initialize())) return false;
    if (!initStep("Zone0InfoTable", mZone0InfoTable->Initialize())) return false;
    if (!initStep("Calendar Server", CalServ::GetInstance()->Initialize())) return false;
    if (!initStep("ClusterManager", mClusterManager->Initialize())) return false;
    if (!initStep("CatManager", mCATManager->Initialize())) return false;
    if (!initStep("DeadlockWatchdog", DeadlockWatchdog::GetInstance()->Initialize())) return false;
    if (!initStep("Host App Manager", mHAManager->Initialize())) return false;
    if (!initStep("DiskUtilizationDaemon", mDiskUtilizationDaemon->Initialize())) return false;
    // 29.
    if (!initStep("J1tag", J1Tag::GetInstance()->Initialize(false))) return false;
    if (!initStep("TopEnd", TopEnd::GetInstance()->Initialize())) return false;
    if (!initStep("Writejournal", WriteJournal::GetInstance()->Initialize())) return false;
    if (!initStep("Dispatcher", Dispatcher::GetInstance()->Initialize())) return false;
    if (!initStep("DataScrubber", DataScrubber::GetInstance()->Initialize())) return false;
    Defragmenter::GetInstance()->Initialize();
    // 30.
    mEventManager->AddHandlerStart(eSysMgr, this, &SystemManager::doSmEvent);
    // 31.
    if (!pDiskLBAMetaDataTracker) pDiskLBAMetaDataTracker = DiskLBAMetaDataTracker::GetInstance();
    if (!pRegionMetaDataTracker) pRegionMetaDataTracker = RegionMetaDataTracker::GetInstance();
    if (!pMetaDataTracker) pMetaDataTracker = ZoneMetaDataTracker::GetInstance();
    if (!pHostLbaCacheTracker) pHostLbaCacheTracker = HostLbaTracker::GetInstance();
    bootCheckpoint("Cache init complete", false);
    // 32.
    LoadDiskPack(clearDisk);
    // 33.
    mSystemPolicy->SystemInitialized();
    // 34.
    if (!mNoHost && !mPackLoaded && mSystemState != 2) {
        USBTransport::GetInstance()->transportEnable(true);
        bootCheckpoint("Load failure, clearing LEDs", true);
        ESA_CONSOLE("DISK PACK FAILED TO LOAD! USB IS UP BUT YOU CAN'T WRITE UNTIL PROBLEMS RECTIFIED!");
    }
    // 35.
    return true;
}
