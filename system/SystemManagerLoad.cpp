// SystemManager's pack load and unload: the two load stages, the read-only
// load used to judge a candidate pack, and the saved mount state in Zone 0.
#include <cstring>
#include <sstream>

#include "background/DataScrubber.h"
#include "background/Defragmenter.h"
#include "background/DiskUtilizationDaemon.h"
#include "cache/DiskLBAMetaDataTracker.h"
#include "cache/HostLbaTracker.h"
#include "cache/RegionMetaDataTracker.h"
#include "cache/ZoneMetaDataTracker.h"
#include "cat/CATManager.h"
#include "cat/ClusterManager.h"
#include "disk/DiskManager.h"
#include "disk/DiskPackManager.h"
#include "disk/DiskPowerManager.h"
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
#include "platform/rtos/Rtos.h"
#include "region/RegionManager.h"
#include "scavenger/BitmapBlockUpdatesMonitor.h"
#include "scavenger/ClusterScavenger.h"
#include "scavenger/OnDiskStore.h"
#include "scavenger/ScavengerTicker.h"
#include "system/CalServ.h"
#include "system/EventManager.h"
#include "system/SystemManager.h"
#include "util/Assert.h"
#include "util/CrashPoint.h"
#include "util/DebugClass.h"
#include "util/Endian.h"
#include "util/Trace.h"
#include "zone/LayoutManager.h"
#include "zone/Zone0InfoTable.h"
#include "zone/ZoneManager.h"

namespace {

constexpr uint32_t kLoadAlarmSource = 0x534d4c44;  // "SMLD"
constexpr unsigned kSavedStateEntry = 11;
constexpr const char* kSavedStateSignature = "SM-Z0IT";

// One named step of a load stage: "<name> LoadDiskPack called", then
// "failed" (the stage stops) or the checkpoint "<name> LoadDiskPack passed".
bool loadStep(const char* name, StatusCode status, bool checkpoint = true) {
    ESA_CONSOLE(name << " LoadDiskPack called");
    CrashPoint((std::string("load.") + name).c_str());
    if (status != StatusCode::Success) {
        ESA_CONSOLE(name << " LoadDiskPack failed");
        return false;
    }
    if (checkpoint) SystemManager::GetInstance()->bootCheckpoint(std::string(name) + " LoadDiskPack passed", false);
    return true;
}

bool unloadStep(const char* name, StatusCode status) {
    if (status != StatusCode::Success) {
        ESA_CONSOLE(name << " UnloadDiskPack failed");
        return false;
    }
    return true;
}

bool readOnlyStep(const char* name, const char* what, StatusCode status) {
    ESA_CONSOLE(name << " " << what << " called");
    ESA_CONSOLE(name << " " << what << (status == StatusCode::Success ? " passed" : " failed"));
    return status == StatusCode::Success;
}

}  // namespace

void SystemManager::alarmEvent(EVENT_TYPE, void* context, unsigned long, void*) {
    auto* self = static_cast<SystemManager*>(context);
    if (!self->mPackLoaded) reportUnaryAssertion(__FILE__, __LINE__, __func__, "LOAD DISK PACK HAS TAKEN TOO LONG");
    EventLogManager::EventLog()->PostEvent("SM::ALARM: PACK LOADED, MUST HAVE BEEN AN EARLIER LOAD FAILURE");
}

// Transport state changes: the standby path that answers them comes with the power Part.
void SystemManager::doSmEvent(EVENT_TYPE, void*, unsigned long, void*) {}

void SystemManager::transportStateChange(int state) {
    mEventManager->NewEvent(eSysMgr, false, (unsigned long)(state == 0 ? 0 : 1));
}

void SystemManager::prepForPackLoad() { mJ2Manager->LoadDiskPack(); }

bool SystemManager::LoadDiskPack(bool clearDisk) {
    bootCheckpoint("disabling event handling", false);
    mEventManager->DisableEventHandling();
    ESA_ASSERT_PTR(pDiskLBAMetaDataTracker, !=, nullptr);
    pDiskLBAMetaDataTracker->flush();
    if (mDiskManager->LoadDiskPack(clearDisk) != StatusCode::Success) {
        ESA_CONSOLE("DiskManager LoadDiskPack failed");
        mEventManager->EnableEventHandling();
        return false;
    }
    bootCheckpoint("enabling event handling", false);
    mEventManager->EnableEventHandling();
    mEventManager->AddHandlerStart(eCalendar, this, &SystemManager::alarmEvent);
    if (CalServ::GetInstance()->registerAlarm(kLoadAlarmSource, CalServ::ONE_SHOT, 600) != StatusCode::Success)
        ESA_CONSOLE("SM::LDP: FAILED TO CREATE ALARM");
    DiskPackManager::GetInstance()->doColdStart(clearDisk);
    while (CalServ::GetInstance()->cancelAlarm(kLoadAlarmSource) != StatusCode::BadAlarm) {
    }
    return true;
}

bool SystemManager::LoadDiskPack2() {
    bool ok = secondStageLoadDiskPack2();
    if (!ok) DiskPackManager::GetInstance()->diskPackLoadStatus(StatusCode::DiskPackNotLoaded);
    return ok;
}

bool SystemManager::secondStageLoadDiskPack2() {
    if (mPackLoaded || mReadOnlyLoaded) return false;
    // 1.
    {
        StatusCode s = mRegionManager->LoadDiskPack();
        if (s == StatusCode::RM_NoDisks) s = StatusCode::Success;
        if (!loadStep("RegionManager", s)) return false;
    }
    // 2.
    ESA_ASSERT_PTR(pRegionMetaDataTracker, !=, nullptr);
    pRegionMetaDataTracker->flush();
    bootCheckpoint("RMDT flushed", false);
    // 3, 4.
    if (!loadStep("ZoneManager", mZoneManager->LoadDiskPack())) return false;
    ESA_ASSERT_PTR(pMetaDataTracker, !=, nullptr);
    pMetaDataTracker->flush();
    bootCheckpoint("ZMDT flushed", false);
    // 5.
    if (!loadStep("Zone0InfoTable", mZone0InfoTable->LoadDiskPack())) return false;
    // 6.
    MountState mount = MOUNT_UNKNOWN;
    BatState battery = BAT_DEFAULT;
    loadSavedState(mount, battery);
    saveState(BOOTING, BAT_ON);
    // 7.
    if (mJ2Manager->nvramCorrupt() && battery == BAT_ON) {
        ESA_CONSOLE(mJ2Manager->nvramCorruptMessage());
        static const char* kStates[] = {"BOOTING ", "RUNNING ", "IN STANDBY ", "UNKNOWN STATE "};
        mEventLog->PostEvent(std::string("SM: NVRAM CORRUPT. Battery state was ON and unit was ") + kStates[mount] +
                             "at power off");
        if (InLabMode()) {
            ESA_CONSOLE(mJ2Manager->nvramCorruptMessage());
            for (;;) taskDelay(60 * sysClkRateGet());
        }
    }
    // 8.
    switch (mount) {
    case BOOTING:
        mPreviousShutdownClean = true;
        mEventLog->PostEvent("SM: previous BOOT was INCOMPLETE");
        break;
    case RUNNING:
        mPreviousShutdownClean = false;
        mEventLog->PostEvent("SM: POWER CYCLE WAS NOT DONE FROM STANDBY");
        break;
    case STANDBY:
        mPreviousShutdownClean = true;
        ESA_CONSOLE("SM: System was rebooted from standby and battery was " << "apparently "
                                                                           << (battery == BAT_ON ? "ON" : "OFF"));
        break;
    default:
        mPreviousShutdownClean = false;
        mEventLog->PostEvent("SM: UNKNOWN SYSTEM STATE, POSSIBLE CLEARDISK?");
        break;
    }
    // 9.
    bool bootedOnBattery = false;
    if (mHRManager->getBattBootState(bootedOnBattery) && battery != BAT_DEFAULT &&
        bootedOnBattery != (battery == BAT_ON))
        mEventLog->PostEvent(std::string("SM: WARNING: uC and SM battery state MISMATCH. SM thinks ") + "battery was " +
                             (battery == BAT_ON ? "ON" : "OFF"));
    // 10.
    if (!loadStep("Calendar Server", CalServ::GetInstance()->LoadDiskPack())) return false;
    if (!loadStep("EventLogManager", mEventLog->LoadDiskPack(false))) return false;
    ESA_CONSOLE("DiskLog LoadDiskPack called");
    if (mDiskLog->LoadDiskPack(false) != StatusCode::Success) {
        ESA_CONSOLE("DiskLogManager LoadDiskPack failed");
        return false;
    }
    if (!loadStep("EPM", ErrorPolicy::GetInstance()->LoadDiskPack())) return false;
    // 11.
    if (!loadStep("ClusterManager", mClusterManager->LoadDiskPack())) return false;
    ESA_ASSERT_PTR(pHostLbaCacheTracker, !=, nullptr);
    pHostLbaCacheTracker->flush();
    bootCheckpoint("HLBAT flushed", false);
    if (!loadStep("CatManager", mCATManager->LoadDiskPack())) return false;
    // 12. J1 replay: after the cluster map, before anything writes.
    if (!loadStep("J1Tag", J1Tag::GetInstance()->LoadDiskPack())) return false;
    if (!loadStep("WriteJournal", WriteJournal::GetInstance()->LoadDiskPack())) return false;
    // 13.
    if (!loadStep("CS OnDiskStore", mOnDiskStore->LoadDiskPack())) return false;
    if (!loadStep("Scavenger Ticker", mScavengerTicker->LoadDiskPack())) return false;
    if (!loadStep("BitmapBlockUpdatesMonitor", mBitmapBlockUpdatesMonitor->LoadDiskPack())) return false;
    if (!loadStep("Cluster Scavenger", mClusterScavenger->LoadDiskPack())) return false;
    // 14.
    if (WriteJournal::GetInstance()->LoadDiskPack2() != StatusCode::Success) {
        ESA_CONSOLE("WriteJournal LoadDiskPack2 failed");
        return false;
    }
    if (!loadStep("Defragmenter", Defragmenter::GetInstance()->LoadDiskPack())) return false;
    TopEnd::GetInstance()->LoadDiskPack();
    Dispatcher::GetInstance()->LoadDiskPack();
    // 15.
    if (!loadStep("SystemPolicy", mSystemPolicy->LoadDiskPack())) return false;
    if (!loadStep("HostAppManager", mHAManager->LoadDiskPack())) return false;
    if (!loadStep("HRManager", mHRManager->LoadDiskPack())) return false;
    if (!loadStep("DiskUtilizationDaemon", mDiskUtilizationDaemon->LoadDiskPack(), false)) return false;
    if (!loadStep("DataScrubber", DataScrubber::GetInstance()->LoadDiskPack(), false)) return false;
    // 16.
    mPackLoaded = true;
    mSystemPolicy->DiskSetLoaded();
    DiskPackManager::GetInstance()->diskPackLoadStatus(StatusCode::Success);
    saveState(RUNNING, BAT_ON);
    // 17. The slot lights of the loaded disks.
    {
        DiskPackManager* dpm = DiskPackManager::GetInstance();
        const uint32_t present = dpm->presentLogicalDisks();
        for (uint16_t ld = 0; ld < DiskPackManager::maxLogicalDisks; ++ld) {
            if (!(present >> ld & 1)) continue;
            uint16_t slot = 0;
            if (dpm->getSlotNum(ld, slot).ok()) mSystemPolicy->DiskMounted(slot);
            else ESA_CONSOLE("Logical disk " << ld << " seems to have disappeared during disk pack load ... weird!");
        }
    }
    // 18.
    mLayoutManager->InitiateBackgroundRepair();
    // 19.
    if (!mNoHost && mSystemState != 2) USBTransport::GetInstance()->transportEnable(true);
    // 20.
    if (!mDebug->extConsistencyCheck(coutTrace)) mEventLog->PostEvent("SM: Post-LoadDiskPack Metacheck failed");
    // 21.
    DiskPowerManager::GetInstance()->ResumeMonitor();
    return true;
}

bool SystemManager::UnloadDiskPack() {
    if (!mPackLoaded) return false;
    mJ2Manager->forceFlush(false);
    if (!mDebug->intConsistencyCheck(coutTrace))
        reportUnaryAssertion(__FILE__, __LINE__, __func__, "intConsistencyCheck before unload");
    if (!unloadStep("DataScrubber", DataScrubber::GetInstance()->UnloadDiskPack())) return false;
    if (!unloadStep("HRManager", mHRManager->UnloadDiskPack())) return false;
    if (!unloadStep("DiskUtilizationDaemon", mDiskUtilizationDaemon->UnloadDiskPack())) return false;
    if (!unloadStep("HostAppManager", mHAManager->UnloadDiskPack())) return false;
    if (!unloadStep("SystemPolicy", mSystemPolicy->UnloadDiskPack())) return false;
    if (!unloadStep("Cluster Scavenger", mClusterScavenger->UnloadDiskPack())) return false;
    if (!unloadStep("Scavenger Ticker", mScavengerTicker->UnloadDiskPack())) return false;
    if (!unloadStep("CatManager", mCATManager->UnloadDiskPack())) return false;
    if (!unloadStep("ClusterManager", mClusterManager->UnloadDiskPack())) return false;
    if (!unloadStep("EPM", ErrorPolicy::GetInstance()->UnloadDiskPack())) return false;
    if (!unloadStep("EventLogManager", mEventLog->UnloadDiskPack())) return false;
    saveState(STANDBY, BAT_ON);
    if (!unloadStep("Zone0InfoTable", mZone0InfoTable->UnloadDiskPack())) return false;
    if (!unloadStep("ZoneManager", mZoneManager->UnloadDiskPack())) return false;
    if (!unloadStep("RegionManager", mRegionManager->UnloadDiskPack())) return false;
    if (!unloadStep("DiskPackManager", DiskPackManager::GetInstance()->UnloadDiskPack())) return false;
    ESA_CONSOLE("DiskPackManager UnloadDiskPack passed");
    if (!unloadStep("J2Manager", mJ2Manager->UnloadDiskPack())) return false;
    ESA_CONSOLE("J2Manager UnloadDiskPack passed");
    if (!unloadStep("DiskManager", mDiskManager->UnloadDiskPack())) return false;
    mPackLoaded = false;
    ESA_CONSOLE("UnloadDiskPack completed");
    return true;
}

StatusCode SystemManager::LoadDiskPackReadOnly() {
    if (mPackLoaded || mReadOnlyLoaded) return StatusCode::InternalError;
    if (!readOnlyStep("RegionManager", "LoadDiskPackReadOnly", mRegionManager->LoadDiskPackReadOnly()))
        return StatusCode::DiskPackNotLoaded;
    pRegionMetaDataTracker->flush();
    if (!readOnlyStep("ZoneManager", "LoadDiskPackReadOnly", mZoneManager->LoadDiskPackReadOnly())) {
        readOnlyStep("RegionManager", "UnloadDiskPackReadOnly", mRegionManager->UnloadDiskPackReadOnly());
        return StatusCode::DiskPackNotLoaded;
    }
    mReadOnlyLoaded = true;
    return StatusCode::Success;
}

StatusCode SystemManager::UnloadDiskPackReadOnly() {
    if (mPackLoaded) return StatusCode::InternalError;
    if (!mReadOnlyLoaded) return StatusCode::DiskPackNotLoaded;
    readOnlyStep("ZoneManager", "UnloadDiskPackReadOnly", mZoneManager->UnloadDiskPackReadOnly());
    readOnlyStep("RegionManager", "UnloadDiskPackReadOnly", mRegionManager->UnloadDiskPackReadOnly());
    mReadOnlyLoaded = false;
    return StatusCode::Success;
}

void SystemManager::loadSavedState(MountState& mount, BatState& battery) {
    mount = MOUNT_UNKNOWN;
    battery = BAT_DEFAULT;
    if (!mZone0InfoTable->entryValid(kSavedStateEntry, kSavedStateSignature, 1)) {
        ESA_TRACE(smVrbhTrace, "SM: No Z0it!");
        return;
    }
    StatusCode s = mZone0InfoTable->ReadArea(kSavedStateEntry, mZone0Buffer, 4096);
    if (s != StatusCode::Success) {
        ESA_CONSOLE("SM::loadSavedState: FAILURE: ERROR READING ZONE0, " << s);
        if (InLabMode()) reportUnaryAssertion(__FILE__, __LINE__, __func__, "loadSavedState read");
        return;
    }
    uint32_t signature = getLE32(mZone0Buffer), version = getLE32(mZone0Buffer + 4);
    if (signature == kSavedStateEntry && version == 1) {
        uint32_t m = getLE32(mZone0Buffer + 8), b = getLE32(mZone0Buffer + 12);
        mount = m <= MOUNT_UNKNOWN ? MountState(m) : MOUNT_UNKNOWN;
        battery = b <= BAT_DEFAULT ? BatState(b) : BAT_DEFAULT;
        return;
    }
    std::ostringstream os;
    os << "SM::loadSavedState: FAILURE: Zone0 content weird, sig = 0x" << std::hex << signature << ", ver = 0x"
       << version;
    mEventLog->PostEvent(os.str());
    if (InLabMode()) reportUnaryAssertion(__FILE__, __LINE__, __func__, "loadSavedState content");
}

void SystemManager::saveState(MountState mount, BatState battery) {
    if (!mZone0InfoTable->entryValid(kSavedStateEntry, kSavedStateSignature, 1)) {
        ESA_TRACE(smVrbhTrace, "SM::saveState: alloc zone0 area");
        mZone0InfoTable->CreateEntry(kSavedStateEntry, 1, 4096, kSavedStateSignature);
    }
    std::memset(mZone0Buffer, 0, 4096);
    putLE32(mZone0Buffer, kSavedStateEntry);
    putLE32(mZone0Buffer + 4, 1);
    putLE32(mZone0Buffer + 8, uint32_t(mount));
    putLE32(mZone0Buffer + 12, uint32_t(battery));
    StatusCode s = mZone0InfoTable->WriteArea(kSavedStateEntry, mZone0Buffer, 4096);
    if (s != StatusCode::Success) {
        mZone0InfoTable->EraseEntry(kSavedStateEntry);
        mEventLog->PostEvent("SM::saveState: FAILED TO WRITE TO ZONE 0, " + s.Dump());
    }
}
