// The CAT manager's life cycle and its "CatMTabl" Zone 0 area.
#include <cstdio>
#include <cstring>

#include "cache/ZoneMetaDataTracker.h"
#include "cat/CATManager.h"
#include "include/DrivePackInfo.h"
#include "management/EventLogManager.h"
#include "system/FlashConfigData.h"
#include "system/SystemManager.h"
#include "util/Crc.h"
#include "util/DebugClass.h"
#include "util/Endian.h"
#include "util/Trace.h"
#include "zone/Zone0InfoTable.h"

namespace {
constexpr char kName[9] = "CatMTabl";
constexpr uint32_t kCrcLength = 40;
constexpr uint32_t kAreaSectors = CATManager::kAreaBytes / 512;

// The last LBA of a LUN of default size, from the flash setting in TiB.
uint64_t defaultMaxLba() {
    unsigned long n = 2;
    if (FlashConfigData::GetInstance()->GetValueUint32(FlashConfigData::MaxLunSize, n) != StatusCode::Success) n = 2;
    if (n == 0) return 0xFFFFFF77;
    if (n <= 2) return n * (uint64_t(1) << 31) - 137;
    if (n <= 16) return n * (uint64_t(1) << 31) - 1;
    return 0x7FFFFFFFFull;
}

uint32_t areaCrc(const uint8_t* area) {
    uint8_t copy[kCrcLength];
    std::memcpy(copy, area, kCrcLength);
    putLE32(copy + 0x0C, 0);
    return GetCRC(copy, kCrcLength);
}
}  // namespace

StatusCode CATManager::Initialize() {
    clt().Initialize(3, "CATLooku");
    // Entry arrays of the write threads, the read threads and the checks.
    WriteCATEntries::Initialize(24);
    DebugClass::GetInstance()->registerChecks(
        "CATManager", [this](std::ostream& out) { return internalConsistencyCheck(out).ok(); },
        [this](std::ostream& out) { return externalConsistencyCheck(out).ok(); });
    return StatusCode::Success;
}

StatusCode CATManager::writeArea(IOTracker& tracker) {
    const Zone0UserInfo& e = Zone0InfoTable::GetInstance()->GetEntry(kEntryId);
    return ZoneMetaDataTracker::GetInstance()->WriteThroughCache(mArea, kAreaSectors, e.zone, e.startOffset, tracker);
}

StatusCode CATManager::InitializeCATM(bool create) {
    std::memset(mArea, 0, sizeof mArea);
    std::memcpy(mArea, kName, 8);
    putLE32(mArea + 0x08, kCrcLength);
    putLE32(mArea + 0x10, kVersion);
    putLE32(mArea + 0x14, 0);
    const uint64_t maxLba = defaultMaxLba();
    putLE32(mArea + 0x18, uint32_t(maxLba));
    putLE32(mArea + 0x20, uint32_t(maxLba >> 32));
    putLE32(mArea + 0x0C, areaCrc(mArea));
    // The entry and its contents in one set: an area is never found made
    // but empty.
    IOTracker tracker(READ_WRITE);
    StatusCode st = StatusCode::Success;
    if (create) st = Zone0InfoTable::GetInstance()->CreateEntry(kEntryId, kVersion, kAreaBytes, kName, tracker);
    if (st.ok()) st = writeArea(tracker);
    StatusCode c = tracker.commitIfDirty();
    return st.ok() ? c : st;
}

StatusCode CATManager::Validate() {
    if (std::memcmp(mArea, kName, 8) != 0) return StatusCode::BadSignature;
    const uint32_t version = getLE32(mArea + 0x10);
    if (version == 1) {
        if (EventLogManager* log = EventLogManager::EventLog()) log->PostEvent("CATM: update version number from 1 to 2");
        putLE32(mArea + 0x10, kVersion);
        putLE32(mArea + 0x08, kCrcLength);
        putLE32(mArea + 0x0C, areaCrc(mArea));
        IOTracker tracker(READ_WRITE);
        StatusCode st = writeArea(tracker);
        if (st.ok()) st = Zone0InfoTable::GetInstance()->UpdateVersionNumber(kEntryId, kVersion, tracker);
        StatusCode c = tracker.commitIfDirty();
        return st.ok() ? c : st;
    }
    const uint32_t stored = getLE32(mArea + 0x0C), actual = areaCrc(mArea);
    if (stored != actual) {
        char text[80];
        std::snprintf(text, sizeof text, "CATM: Bad checksum, actual 0x%08x stored 0x%08x", actual, stored);
        ESA_CONSOLE(text);
        return StatusCode::BadMetadataCRC;
    }
    return StatusCode::Success;
}

StatusCode CATManager::Load() {
    Zone0InfoTable* z0 = Zone0InfoTable::GetInstance();
    const Zone0UserInfo& e = z0->GetEntry(kEntryId);
    if (!e.inUse()) {
        // A pack without a map yet (a new one, or one made before the map
        // existed): nothing can refer to it, so it is made here.
        StatusCode st = InitializeCATM(true);
        if (!st.ok()) return st;
    } else {
        if (e.version != 1 && e.version != 2) {
            char text[120];
            std::snprintf(text, sizeof text,
                          "Incorrect CATM Zone 0 entry version found. Versions expected: %u or %u. Version found: %u",
                          1u, 2u, unsigned(e.version));
            ESA_CONSOLE(text);
            return StatusCode::BadMetadata;
        }
        IOTracker tracker(READ_ONLY);
        StatusCode st = ZoneMetaDataTracker::GetInstance()->ReadThroughCache(mArea, kAreaSectors, e.zone,
                                                                              e.startOffset, tracker);
        tracker.commitIfDirty();
        if (!st.ok()) {
            ESA_CONSOLE("Unable to read our metadata from Zone 0: " << st << ". Aborting");
            return st;
        }
        bool allZero = true;
        for (int i = 0; i < 8; ++i) allZero = allZero && mArea[i] == 0;
        if (allZero) {
            // The area is made in the same set as its entry, so an empty one
            // is damage, not an interrupted making: only a pack being cleared
            // may start again here.
            if (!SystemManager::GetInstance()->clearDiskRequested()) {
                ESA_CONSOLE("CATM: the map's Zone 0 area is empty on an existing pack");
                return StatusCode::BadMetadata;
            }
            st = InitializeCATM(false);
            if (!st.ok()) return st;
        }
    }
    StatusCode st = Validate();
    if (st == StatusCode::BadMetadataCRC) ESA_CONSOLE("CATM invalid");
    if (!st.ok()) return st;
    mMaxDefaultLba = uint64_t(getLE32(mArea + 0x18)) | uint64_t(getLE32(mArea + 0x20)) << 32;
    const uint64_t value = mMaxDefaultLba - getLE32(mArea + 0x14);
    SystemDrivePackInfo* info = SystemDrivePackInfo::GetInstance();
    if (!info->isSet(SystemDrivePackInfo::MaxDefaultLBA) || info->get(SystemDrivePackInfo::MaxDefaultLBA) != value)
        info->set(SystemDrivePackInfo::MaxDefaultLBA, value);
    const uint64_t bytes = (mMaxDefaultLba + 1) * 512;
    char text[80];
    if (bytes >= (uint64_t(1) << 40)) std::snprintf(text, sizeof text, "CAT: Default LUN size is 0x%llx TiB",
                                                   (unsigned long long)(bytes >> 40));
    else std::snprintf(text, sizeof text, "CAT: Default LUN size is 0x%llx GiB", (unsigned long long)(bytes >> 30));
    if (EventLogManager* log = EventLogManager::EventLog()) log->PostEvent(text);
    return StatusCode::Success;
}

StatusCode CATManager::LoadDiskPack() {
    LockObject::ExclusiveLockInstance g(&mLock);
    StatusCode st = Load();
    if (!st.ok()) {
        ESA_CONSOLE("CATManager::LoadDiskPack: CATM.LoadDiskPack failed ... " << st);
        return st;
    }
    clt().setMaxLuns(uint32_t(SystemManager::GetInstance()->maxLuns()));
    clt().setDefaultMaxLba(mMaxDefaultLba);
    st = clt().LoadDiskPack(CATLookupTable::kLoadCreate);
    if (!st.ok()) {
        ESA_CONSOLE("CATManager::LoadDiskPack: CLT.LoadDiskPack failed ... " << st);
        return st;
    }
    mLoaded = true;
    return StatusCode::Success;
}

StatusCode CATManager::UnloadDiskPack() {
    LockObject::ExclusiveLockInstance g(&mLock);
    clt().UnloadDiskPack();
    mLoaded = false;
    return StatusCode::Success;
}
