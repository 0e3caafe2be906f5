#include "background/DiskUtilizationDaemon.h"

#include <bit>
#include <cstdio>

#include "cat/ClusterManager.h"
#include "disk/DiskPackManager.h"
#include "host/TopEnd.h"
#include "platform/board/BoardServices.h"
#include "system/FlashConfigData.h"
#include "util/ConsoleCommand.h"
#include "util/IOTracker.h"
#include "util/Trace.h"
#include "zone/ZoneManager.h"

namespace {
constexpr uint32_t kClusterBytes = 4096;
}

DiskUtilizationDaemon* DiskUtilizationDaemon::GetInstance() {
    static DiskUtilizationDaemon instance;
    return &instance;
}

StatusCode DiskUtilizationDaemon::Initialize() {
    if (mStarted) return StatusCode::Success;
    mStarted = true;
    EventManager::GetInstance()->AddHandlerEnd(eRebuild, this, DoRebuild);
    mWake = semCCreate(0, 0);
    if (mWake == nullptr) {
        std::printf("tDUD sem was not created\n");
        return StatusCode::InitFailed;
    }
    if (taskSpawn("tDUD", 150, [this] { dudLoop(); }) == nullptr) {
        std::printf("tDUD thread was not created\n");
        return StatusCode::InitFailed;
    }
    mRegisterFd = boardOpen("/ESA_REGISTER", 2);
    return StatusCode::Success;
}

StatusCode DiskUtilizationDaemon::LoadDiskPack() {
    TopEnd::GetInstance()->clearOneAtATime();
    unsigned long scale = 1;
    if (FlashConfigData::GetInstance()->GetValueUint32("scalefactor", scale).ok() && scale > 0) mScaleFactor = scale;
    mLoaded = true;
    mFlags = 0;
    CalculateCapacity();
    SetLEDs(usedForMeter(), false);
    return StatusCode::Success;
}

StatusCode DiskUtilizationDaemon::UnloadDiskPack() {
    std::lock_guard<std::mutex> g(mDUD);
    mLoaded = false;
    mUsedClusters = mTotalClusters = mFreeClusters = mUnprotectedClusters = mSelfMirroredZones = 0;
    mSelfMirrored = mDegraded = false;
    return StatusCode::Success;
}

// Unless the word says a rebuild is starting, a change of redundancy is
// worth a new look at once.
void DiskUtilizationDaemon::DoRebuild(EVENT_TYPE, void* context, unsigned long value, void*) {
    if (!(value & 0x8000)) static_cast<DiskUtilizationDaemon*>(context)->WakeDUD();
}

void DiskUtilizationDaemon::WakeDUD() {
    if (mWake) semGive(mWake);
}

void DiskUtilizationDaemon::DUDUpdate(bool force) {
    if (!mLoaded) return;
    CalculateCapacity();
    SetLEDs(usedForMeter(), force);
}

void DiskUtilizationDaemon::dudLoop() {
    for (;;) {
        semTake(mWake, kWakeSeconds * sysClkRateGet());
        if (!mLoaded) continue;
        DUDUpdate(false);
    }
}

void DiskUtilizationDaemon::CalculateCapacity() {
    if (!mLoaded) return;
    ClusterManager* cm = ClusterManager::GetInstance();
    ZoneManager* zm = ZoneManager::GetInstance();
    IOTracker tracker(READ_ONLY);
    uint64_t potential = 0, allocated = 0, selfMirroredTotal = 0;
    StatusCode s = zm->GetZoneCounts(potential, allocated, tracker);
    if (!s.ok()) {
        ESA_CONSOLE("DuD::CalculateCapacity: Could not get zone counts: " << s.Dump());
        return;
    }
    if (!(s = zm->GetSelfMirroredZoneTotal(selfMirroredTotal)).ok()) {
        ESA_CONSOLE("DuD::CalculateCapacity: Could not get self mirrored zone total: " << s.Dump());
        return;
    }
    const uint64_t perZone = cm->GetClustersPerZone();
    const uint64_t inUse = cm->GetZonesInUse();
    const uint64_t used = cm->GetAllocatedClusters();
    const bool selfMirrored = zm->SelfMirroredZones(tracker);
    const bool degraded = zm->DegradedZones(tracker);
    const bool useSelfMirrored = zm->zoneTable().UseSelfMirrored();

    std::lock_guard<std::mutex> g(mDUD);
    uint64_t spare = allocated > inUse ? allocated - inUse : 0;
    uint64_t zones = spare <= potential ? potential - spare : inUse;
    mUsedClusters = used;
    mTotalClusters = perZone * zones;
    mSelfMirroredZones = selfMirroredTotal;
    mUnprotectedClusters = mTotalClusters + (useSelfMirrored ? 0 : perZone * selfMirroredTotal);
    if (mUsedClusters > mTotalClusters) {
        ESA_CONSOLE("DUD error: mFreeClusters negative. ");
        mFreeClusters = 0;
    } else {
        mFreeClusters = mTotalClusters - mUsedClusters;
    }
    mSelfMirrored = selfMirrored;
    mDegraded = degraded;
    mZoneSize = perZone * kClusterBytes;
}

uint64_t DiskUtilizationDaemon::usedForMeter() const {
    return mUsingHostCapacity ? mUsedClustersHost : mUsedClusters;
}

void DiskUtilizationDaemon::SetLEDs(uint64_t used, bool force) {
    uint32_t flags, before;
    uint64_t percent;
    {
        std::lock_guard<std::mutex> g(mDUD);
        if (!mLoaded) return;
        const uint64_t full = uint64_t(mScaleFactor) * 10000;
        percent = mTotalClusters == 0 || used >= mTotalClusters ? full : full * used / mTotalClusters;
        const uint32_t high = mHighWatermark, low = mLowWatermark;
        flags = before = mFlags;
        if ((flags & kNoRedundancyMargin) && !mSelfMirrored && !mDegraded) flags &= ~kNoRedundancyMargin;
        if ((flags & kHighWatermark) && percent < high) {
            flags &= ~kHighWatermark;
            ESA_CONSOLE("DUD:below HIGH water mark at " << percent);
        }
        if ((flags & kLowWatermark) && percent < low) {
            flags &= ~kLowWatermark;
            ESA_CONSOLE("DUD:below LOW water mark at " << percent);
        }
        if (percent < high && percent >= low && !(flags & kLowWatermark)) {
            flags |= kLowWatermark;
            ESA_CONSOLE("DUD:trigger LOW water mark at " << percent);
        }
        if (percent >= high && !(flags & kHighWatermark)) {
            flags |= kHighWatermark;
            ESA_CONSOLE("DUD:trigger HIGH water mark at " << percent);
        }
        const bool dualShort = ZoneManager::GetInstance()->zoneTable().DualRedundancyMode() &&
                               std::popcount(DiskPackManager::GetInstance()->presentLogicalDisks()) < 3;
        if (mSelfMirrored || mDegraded || dualShort) flags |= kNoRedundancyMargin;
        mFlags = flags;
    }
    // Event 7 carries the word to the slot lights: every pass while the pack
    // has no margin, otherwise on a change.
    if ((flags & kNoRedundancyMargin) || flags != before)
        EventManager::GetInstance()->NewEvent(eDUDWMark, false, (unsigned long)flags);
    if (mManagingLEDs || force) {
        int value = int(percent / 100);
        if (value > 100) value = 100;
        mMeterPercent = value;
        if (mRegisterFd >= 0) boardIoctl(mRegisterFd, EsaRegisterIoctl::CapacityMeter, value);
    }
}

StatusCode DiskUtilizationDaemon::GetArrayCapacityInfo(uint64_t& free, uint64_t& used, uint64_t& reserved) {
    if (!mLoaded) return StatusCode::InternalError;
    std::lock_guard<std::mutex> g(mDUD);
    free = mFreeClusters * kClusterBytes;
    used = usedForMeter() * kClusterBytes;
    reserved = mZoneSize * mSelfMirroredZones;
    return StatusCode::Success;
}

bool DiskUtilizationDaemon::setWatermarks(uint32_t low, uint32_t high) {
    if (low >= 10000 || high > 10000 || low >= high) return false;
    mLowWatermark = low;
    mHighWatermark = high;
    WakeDUD();
    return true;
}

void DiskUtilizationDaemon::SetUsedCapacityHost(uint64_t bytes) {
    {
        std::lock_guard<std::mutex> g(mDUD);
        mUsedClustersHost = (bytes + kClusterBytes - 1) / kClusterBytes;
    }
    mUsingHostCapacity = true;
    mManagingLEDs = true;
    ESA_CONSOLE("Used capacity values now under the control of the GUI");
}

void DiskUtilizationDaemon::displayArrayCapacity() {
    mUsingHostCapacity = false;
    mManagingLEDs = true;
    ESA_CONSOLE("Capacity LEDs will display ESA values");
}

void DiskUtilizationDaemon::StopManagingCapacityLEDs() {
    mManagingLEDs = false;
    ESA_CONSOLE("Capacity meter LEDs now under the control of the GUI");
}

void DiskUtilizationDaemon::Dump(std::ostream& out) {
    std::lock_guard<std::mutex> g(mDUD);
    out << "User Capacity Free         = " << mFreeClusters * kClusterBytes << "\n"
        << "User Capacity Used         = " << usedForMeter() * kClusterBytes << "\n"
        << "User Capacity Total        = " << mTotalClusters * kClusterBytes << "\n"
        << "Unprotected Capacity Total = " << mUnprotectedClusters * kClusterBytes << "\n"
        << "Watermarks (low, high)     = " << mLowWatermark << ", " << mHighWatermark << "\n"
        << "Watermark status           = 0x" << std::hex << mFlags.load() << std::dec << "\n"
        << "Capacity meter             = " << mMeterPercent.load() << (mManagingLEDs ? "" : " (host)") << "\n";
}

namespace {
int capacityCommand(int argc, char** argv, std::ostream& out) {
    DiskUtilizationDaemon* dud = DiskUtilizationDaemon::GetInstance();
    if (argc > 1 && std::string(argv[1]) == "now") dud->DUDUpdate(false);
    dud->Dump(out);
    return 0;
}

int setWatermarksCommand(int argc, char** argv, std::ostream& out) {
    if (argc != 3) {
        out << "Error: Invalid argc " << argc << "\n";
        return -1;
    }
    unsigned long low = std::strtoul(argv[1], nullptr, 0), high = std::strtoul(argv[2], nullptr, 0);
    if (low >= 10000) {
        out << "Error: Low " << low << " greater than " << 9999 << "\n";
        return -1;
    }
    if (high > 10000) {
        out << "Error: High " << high << " greater than " << 10000 << "\n";
        return -1;
    }
    if (low >= high) {
        out << "Error: Low = " << low << " is not less than High = " << high << "\n";
        return -1;
    }
    DiskUtilizationDaemon::GetInstance()->setWatermarks(uint32_t(low), uint32_t(high));
    out << "Setting High Watermark = " << high << "\nSetting Low Watermark = " << low << "\nsetWatermarks successful\n";
    return 0;
}
}  // namespace

ConsoleCommand gCapacity("capacity",
                         "Displays the capacity of the entire ESA (add 'now' to calculate the current capacity)",
                         capacityCommand);
ConsoleCommand gSetWatermarks("setWatermarks", "Set the watermarks: setWatermarks <low> <high>", setWatermarksCommand);
