#include "cat/catlookuptable/CATLookupTable.h"

#include <algorithm>
#include <cstring>
#include <sstream>

#include "cache/CacheRangeTracker.h"
#include "cache/ZoneMetaDataTracker.h"
#include "cat/LunDelete.h"
#include "include/DrivePackInfo.h"
#include "management/EventLogManager.h"
#include "platform/rtos/Rtos.h"
#include "util/ErrorInjection/ErrorInjection.h"
#include "util/Trace.h"
#include "zone/Zone0InfoTable.h"
#include "zone/ZoneManager.h"
#include "zone/ZoneTable.h"

Trace tClt("CAT", "CLT", "Info", false);

ErrorInjection& cltInjection() {
    static ErrorInjection injection("clt");
    return injection;
}
namespace {
const int kReadInfoPoint = cltInjection().addApiPoint("ReadCATZoneInfoData.CZ0E", "fail reading the CLT area");
}

CATLookupTable* CATLookupTable::GetInstance() {
    static CATLookupTable instance;
    return &instance;
}

uint8_t CATLookupTable::currentTick() {
    if (sTickSource) return sTickSource();
    return uint8_t(tick64Get() / (uint64_t(sysClkRateGet()) * 60));
}

void CATLookupTable::Initialize(uint32_t entryId, const char* name) {
    mEntryId = entryId;
    mName = name;
}

void CATLookupTable::postEvent(const std::string& text) {
    ESA_TRACE(tClt, text);
    if (EventLogManager* log = EventLogManager::EventLog()) log->PostEvent(text);
}

uint64_t CATLookupTable::zone0Offset() const { return Zone0InfoTable::GetInstance()->GetEntry(mEntryId).startOffset; }
uint32_t CATLookupTable::zone0Zone() const { return Zone0InfoTable::GetInstance()->GetEntry(mEntryId).zone; }

// ---- the image -------------------------------------------------------------

StatusCode CATLookupTable::WriteCATZoneInfoData(uint32_t offset, uint32_t sectors, IOTracker& tracker) {
    if (mReadOnly) return StatusCode::ReadOnlyMode;
    StatusCode st = mZmdt->WriteThroughCache(mImage.data() + offset, sectors, zone0Zone(), zone0Offset() + offset,
                                             tracker);
    if (!st.ok())
        ESA_CONSOLE("Error: CLT: WriteCATZoneInfoData: writing CAT zone config metadata failed! offset = "
                    << offset << ", sectors = " << sectors << " (" << st << ")");
    return st;
}

StatusCode CATLookupTable::WriteCATZoneInfoData() { return writePieces(0); }

// The image from byte `from` to its end, in pieces of at most 64 KiB, each
// committed: the area is written so only when it is made, when nothing
// refers to it yet.
StatusCode CATLookupTable::writePieces(uint32_t from) {
    for (uint32_t off = from; off < mImage.length(); off += 65536) {
        IOTracker tracker(READ_WRITE);
        const uint32_t n = std::min<uint32_t>(65536, mImage.length() - off) / 512;
        StatusCode st = WriteCATZoneInfoData(off, n, tracker);
        StatusCode c = tracker.commitIfDirty();
        if (!st.ok()) return st;
        if (!c.ok()) return c;
    }
    return StatusCode::Success;
}

StatusCode CATLookupTable::writeImageRange(uint32_t firstByte, uint32_t lastByte, IOTracker& tracker) {
    const uint32_t first = firstByte / 512, last = lastByte / 512;
    return WriteCATZoneInfoData(first * 512, last - first + 1, tracker);
}

StatusCode CATLookupTable::WriteCATZoneHeaderData(IOTracker& tracker) {
    mImage.sealCrc();
    StatusCode st = WriteCATZoneInfoData(0, mImage.headerSectors(), tracker);
    if (!st.ok()) ESA_CONSOLE("Error: CATLookupTable writing CAT zone header meta data failed!");
    return st;
}

StatusCode CATLookupTable::ReadCATZoneInfoHeader(IOTracker& tracker) {
    StatusCode st = mZmdt->ReadThroughCache(mImage.data(), mImage.headerSectors(), zone0Zone(), zone0Offset(), tracker);
    if (!st.ok()) {
        ESA_CONSOLE("Error: CATLookupTable reading CAT zone config meta data header failed!");
        return st;
    }
    const uint32_t z0Version = Zone0InfoTable::GetInstance()->GetEntry(mEntryId).version;
    if (z0Version < 1 || z0Version > 3) {
        ESA_CONSOLE("Incorrect version Zone 0 version for CLT: " << z0Version << " / " << CLTImage::kVersion);
        return StatusCode::CorruptedZone0Entry;
    }
    bool allZero = true;
    for (int i = 0; i < 8; ++i) allZero = allZero && mImage.data()[i] == 0;
    if (!allZero && !mImage.signatureMatches()) {
        ESA_CONSOLE("Corrupted CLT zone 0 table");
        return StatusCode::CorruptedZone0Entry;
    }
    return StatusCode::Success;
}

StatusCode CATLookupTable::ReadCATZoneInfoData(IOTracker& tracker) {
    bool fired = false;
    if (StatusCode st = cltInjection().apiErrorInject(kReadInfoPoint, StatusCode::Success, fired); fired) return st;
    for (uint32_t off = 0; off < mImage.length(); off += 65536) {
        const uint32_t n = std::min<uint32_t>(65536, mImage.length() - off) / 512;
        StatusCode st = mZmdt->ReadThroughCache(mImage.data() + off, n, zone0Zone(), zone0Offset() + off, tracker);
        if (!st.ok()) {
            ESA_CONSOLE("Error: CATLookupTable reading CAT zone config meta data failed! (" << st << ")");
            return st;
        }
    }
    return StatusCode::Success;
}

StatusCode CATLookupTable::Validate() {
    if (!mImage.signatureMatches()) return StatusCode::BadSignature;
    if (mImage.version() == 1) {
        // Version 1 carried no checksum.
        postEvent("CLT: update version number from 1 to 2");
        mImage.setVersion(2);
        IOTracker tracker(READ_WRITE);
        StatusCode st = WriteCATZoneHeaderData(tracker);
        if (st.ok()) st = Zone0InfoTable::GetInstance()->UpdateVersionNumber(mEntryId, 2, tracker);
        StatusCode c = tracker.commitIfDirty();
        if (!st.ok()) return st;
        if (!c.ok()) return c;
    } else if (mImage.storedCrc() != mImage.computeCrc()) {
        char text[96];
        std::snprintf(text, sizeof text, "CLT: Bad checksum, actual 0x%08x stored 0x%08x", mImage.computeCrc(),
                      mImage.storedCrc());
        ESA_CONSOLE(text);
        return StatusCode::BadMetadataCRC;
    }
    if (mImage.version() == 2 || (mImage.flags() & CLTImage::kFlagUpgradeInProgress)) {
        // Tables of version 2 were sized for the pack's default LUN; this
        // system makes only version 3 and does not convert older ones yet.
        ESA_CONSOLE("CLT: a version " << mImage.version()
                                      << " table needs an upgrade to version 3, which this system cannot do");
        return StatusCode::FunctionNotImplemented;
    }
    if (mImage.maxLuns() != getLE32(mImage.data() + 0x0C) || mImage.headerLength() != getLE16(mImage.data() + 8) ||
        mImage.chunksPerZone() != mGeo.chunksPerZone) {
        ESA_CONSOLE("CLT: the table was made for another geometry (LUNs " << getLE32(mImage.data() + 0x0C)
                                                                          << ", chunks per Zone "
                                                                          << mImage.chunksPerZone() << ")");
        return StatusCode::CorruptedZone0Entry;
    }
    return StatusCode::Success;
}

StatusCode CATLookupTable::createImage() {
    mImage.init(mGeo, mMaxLuns);
    mImage.clearHeader();
    mImage.setChunksPerZone(mGeo.chunksPerZone);
    mImage.setNextUniqueId(CLTImage::kFirstUniqueId);
    for (uint32_t lun = 0; lun < mMaxLuns; ++lun) mImage.setMaxLba(lun, mDefaultMaxLba);
    // The LUN blocks first, the header (which makes the area valid) last.
    StatusCode st = writePieces(mImage.headerSectors() * 512);
    if (!st.ok()) return st;
    IOTracker tracker(READ_WRITE);
    st = WriteCATZoneHeaderData(tracker);
    StatusCode c = tracker.commitIfDirty();
    return st.ok() ? c : st;
}

StatusCode CATLookupTable::LoadDiskPack(unsigned long flags) {
    ReentrantLockObject::LockInstance g(&mLock);
    mReadOnly = flags & kLoadReadOnly;
    SystemDrivePackInfo* info = SystemDrivePackInfo::GetInstance();
    mGeo = CLTGeometry::compute(info->GetRegionSize(), info->GetZoneSize());
    mZmdt = ZoneMetaDataTracker::GetInstance();
    CacheRangeTracker::setSectorsPerChunk(mGeo.sectorsPerChunk);
    mImage.init(mGeo, mMaxLuns);
    std::fill(std::begin(mMaxLba), std::end(mMaxLba), 0);

    Zone0InfoTable* z0 = Zone0InfoTable::GetInstance();
    bool fresh = false;
    if (!z0->GetEntry(mEntryId).inUse()) {
        if (!(flags & kLoadCreate) || mReadOnly) {
            ESA_CONSOLE("CLT: no CAT lookup table on this pack");
            return StatusCode::CorruptedZone0Entry;
        }
        StatusCode st = z0->CreateEntry(mEntryId, CLTImage::kVersion, mImage.length(), mName.c_str());
        if (!st.ok()) return st;
        fresh = true;
    } else {
        const Zone0UserInfo& e = z0->GetEntry(mEntryId);
        if (e.version < 1 || e.version > 3 || std::memcmp(e.userSignature, mName.data(), 8) != 0) {
            char text[160];
            std::snprintf(text, sizeof text,
                          "GetCLTZone0InfoTable: Incorrect CLT Zone 0 Info Table. Versions expected: %lu. Version "
                          "found: %lu.",
                          (unsigned long)CLTImage::kVersion, (unsigned long)e.version);
            ESA_CONSOLE(text);
            return StatusCode::CorruptedZone0Entry;
        }
        if (e.length < mImage.length()) {
            ESA_CONSOLE("CLT: Zone 0 area of " << e.length << " bytes is too short for " << mImage.length());
            return StatusCode::CorruptedZone0Entry;
        }
    }
    if (!fresh) {
        IOTracker tracker(READ_ONLY);
        StatusCode st = ReadCATZoneInfoHeader(tracker);
        if (st.ok()) st = ReadCATZoneInfoData(tracker);
        tracker.commitIfDirty();
        if (!st.ok()) return st;
        bool allZero = true;
        for (int i = 0; i < 8; ++i) allZero = allZero && mImage.data()[i] == 0;
        // An area whose header never reached the disk was cut short while it
        // was being made: nothing can refer to it yet, so it is made again.
        fresh = allZero && (flags & kLoadCreate) && !mReadOnly;
        if (allZero && !fresh) return StatusCode::CorruptedZone0Entry;
    }
    if (fresh) {
        StatusCode st = createImage();
        if (!st.ok()) return st;
    }
    StatusCode st = Validate();
    if (!st.ok()) {
        ESA_CONSOLE("CLT invalid");
        return st;
    }
    for (uint32_t lun = 0; lun < mMaxLuns; ++lun)
        if (mImage.zoneCount(lun)) mMaxLba[lun] = mImage.maxLba(lun) + kLbaMargin;
    st = LunDelete::GetInstance()->LoadDiskPack();
    if (!st.ok()) return st;
    if (!mReadOnly) {
        st = upgradeZones();
        if (!st.ok()) return st;
    }
    mLoaded = true;
    return StatusCode::Success;
}

// Every CAT zone must be a mirrored metadata Zone owned by its LUN; the
// ownership records are written once per pack (flag bit 0).
StatusCode CATLookupTable::upgradeZones() {
    const bool ownershipWritten = mImage.flags() & CLTImage::kFlagRecoveryWritten;
    for (uint32_t lun = 0; lun < mMaxLuns; ++lun) {
        for (uint32_t i = 0; i < mImage.zoneCount(lun) && i < mGeo.maxCatZonesPerLun; ++i) {
            const uint32_t zone = mImage.catZone(lun, i);
            if (!zone) continue;
            ZoneTableEntry entry;
            if (ZoneTable::GetInstance()->LookupZone(zone, entry).ok() && (!entry.isMirrorOnly() || !entry.isMetadata()))
                postEvent("CLT: CAT zone " + std::to_string(zone) + " of LUN " + std::to_string(lun) +
                          " is not a mirrored metadata Zone");
            if (ownershipWritten) continue;
            IOTracker tracker(READ_WRITE);
            tracker.setFlushFlag();
            _ZoneOwnership own;
            own.owner = kOwnerType;
            own.words[0] = i;
            own.words[1] = lun;
            StatusCode st = ZoneManager::GetInstance()->SetZoneOwnership(zone, own, tracker);
            StatusCode c = tracker.commitIfDirty();
            if (!st.ok()) return st;
            if (!c.ok()) return c;
        }
    }
    if (!ownershipWritten) {
        mImage.setFlags(mImage.flags() | CLTImage::kFlagRecoveryWritten);
        IOTracker tracker(READ_WRITE);
        StatusCode st = WriteCATZoneHeaderData(tracker);
        StatusCode c = tracker.commitIfDirty();
        if (!st.ok()) return st;
        if (!c.ok()) return c;
        postEvent("CLT: Wrote recovery sectors for LUN : all");
    }
    return StatusCode::Success;
}

StatusCode CATLookupTable::UnloadDiskPack() {
    ReentrantLockObject::LockInstance g(&mLock);
    LunDelete::GetInstance()->UnloadDiskPack();
    mLoaded = false;
    std::fill(std::begin(mMaxLba), std::end(mMaxLba), 0);
    CacheRangeTracker::setSectorsPerChunk(0);
    return StatusCode::Success;
}

// ---- LUNs ------------------------------------------------------------------

StatusCode CATLookupTable::createLun(uint32_t& lun, uint64_t maxLba, IOTracker& tracker) {
    ReentrantLockObject::LockInstance g(&mLock);
    if (!mLoaded) return StatusCode::DiskPackNotLoaded;
    if (mReadOnly) return StatusCode::ReadOnlyMode;
    const uint32_t zones = mGeo.catZonesFor(maxLba);
    if (maxLba == 0 || zones > mGeo.maxCatZonesPerLun) return StatusCode::BadCommand;
    uint32_t found = mMaxLuns;
    for (uint32_t i = 0; i < mMaxLuns && found == mMaxLuns; ++i)
        if (mImage.zoneCount(i) == 0) found = i;
    if (found == mMaxLuns) {
        ESA_CONSOLE("CLT:createLun: No free LUNS");
        return StatusCode::NoMoreLuns;
    }
    mImage.clearBlock(found);
    mImage.setMaxLba(found, maxLba);
    mImage.setZoneCount(found, zones);
    mImage.setLunIndex(found);
    const uint16_t id = mImage.nextUniqueId();
    mImage.setUniqueId(found, id);
    mImage.setNextUniqueId(uint16_t(id + 1));
    StatusCode st = writeImageRange(mImage.blockOffset(found), mImage.blockOffset(found + 1) - 1, tracker);
    if (!st.ok()) ESA_CONSOLE("CLT:createLun: failed to write CLT zone list, aborting create: " << st);
    if (st.ok()) {
        st = WriteCATZoneHeaderData(tracker);
        if (!st.ok()) ESA_CONSOLE("CLT:createLun: header write failed, aborting create: " << st);
    }
    if (!st.ok()) {
        mImage.setZoneCount(found, 0);
        mImage.setMaxLba(found, mDefaultMaxLba);
        mImage.setNextUniqueId(id);
        return st;
    }
    mMaxLba[found] = maxLba + kLbaMargin;
    lun = found;
    postEvent("CLT: created LUN " + std::to_string(found) + " of " + std::to_string(maxLba + 1) + " sectors");
    return StatusCode::Success;
}

StatusCode CATLookupTable::deleteLun(uint32_t lun, uint16_t ident) { return LunDelete::GetInstance()->deleteLun(lun, ident); }

bool CATLookupTable::HasLunBeenUsed(uint32_t lun) {
    ReentrantLockObject::LockInstance g(&mLock);
    return mLoaded && lun < mMaxLuns && mImage.zoneCount(lun) != 0;
}

StatusCode CATLookupTable::getLunLastLba(uint32_t lun, uint64_t& lastLba) {
    ReentrantLockObject::LockInstance g(&mLock);
    if (!mLoaded || lun >= mMaxLuns || mImage.zoneCount(lun) == 0) return StatusCode::NoMoreLuns;
    lastLba = mImage.maxLba(lun);
    return StatusCode::Success;
}

uint16_t CATLookupTable::lunUniqueId(uint32_t lun) {
    ReentrantLockObject::LockInstance g(&mLock);
    return mLoaded && lun < mMaxLuns ? mImage.uniqueId(lun) : 0;
}

uint32_t CATLookupTable::catZoneCount(uint32_t lun) {
    ReentrantLockObject::LockInstance g(&mLock);
    return lun < mMaxLuns ? std::min(mImage.zoneCount(lun), mGeo.maxCatZonesPerLun) : 0;
}

uint32_t CATLookupTable::catZone(uint32_t lun, uint32_t index) {
    ReentrantLockObject::LockInstance g(&mLock);
    return mImage.catZone(lun, index);
}

bool CATLookupTable::chunkWritten(uint32_t lun, uint64_t chunk) {
    ReentrantLockObject::LockInstance g(&mLock);
    return mImage.chunkWritten(lun, chunk);
}

StatusCode CATLookupTable::EnsureLUNsInit(uint32_t maxLun) {
    if (mReadOnly || !mLoaded) return StatusCode::Success;
    for (uint32_t lun = 0; lun <= maxLun && lun < mMaxLuns; ++lun) {
        for (uint32_t i = 0; i < catZoneCount(lun); ++i) {
            ReentrantLockObject::LockInstance g(&mLock);
            if (mImage.catZone(lun, i)) continue;
            IOTracker tracker(READ_WRITE);
            StatusCode st = CreateCATZone(lun, i, tracker);
            StatusCode c = tracker.commitIfDirty();
            if (!st.ok()) return st;
            if (!c.ok()) return c;
        }
    }
    return StatusCode::Success;
}

std::string CATLookupTable::lunRangeText(uint32_t lun, uint32_t index) {
    const uint64_t lbasPerZone = mGeo.entriesPerCatZone * kSectorsPerCluster;
    const uint64_t first = index * lbasPerZone;
    const uint64_t last = std::min(first + lbasPerZone - 1, mImage.maxLba(lun));
    std::ostringstream os;
    os << std::hex << "0x" << first << " .. 0x" << last;
    return os.str();
}

StatusCode CATLookupTable::CreateCATZone(uint32_t lun, uint32_t index, IOTracker& tracker) {
    ReentrantLockObject::LockInstance g(&mLock);
    if (mImage.catZone(lun, index)) return StatusCode::Success;
    uint32_t zone = 0;
    StatusCode st = ZoneManager::GetInstance()->AllocateMetadataZone(zone, tracker);
    if (!st.ok()) {
        ESA_CONSOLE("Error: Creating a new CAT zone failed (" << st << ")");
        return st;
    }
    mImage.setCatZone(lun, index, zone);
    _ZoneOwnership own;
    own.owner = kOwnerType;
    own.words[0] = index;
    own.words[1] = lun;
    st = ZoneManager::GetInstance()->SetZoneOwnership(zone, own, tracker);
    if (st.ok()) st = writeImageRange(mImage.tableOffset(lun, index), mImage.tableOffset(lun, index) + 3, tracker);
    if (!st.ok()) {
        // The set is not committed by us; the in-memory word must not claim
        // a Zone the disk may never hear of.
        mImage.setCatZone(lun, index, 0);
        return st;
    }
    ++mCounters.catZonesCreated;
    postEvent("CLT: created CAT zone " + std::to_string(index) + "(ZN:" + std::to_string(zone) + ") for LUN " +
              std::to_string(lun) + " (covers LBA range " + lunRangeText(lun, index) + ")");
    return StatusCode::Success;
}

StatusCode CATLookupTable::CleanCATZone(uint32_t lun, uint32_t catZone, uint32_t sector, uint32_t sectors,
                                        IOTracker& tracker) {
    ReentrantLockObject::LockInstance g(&mLock);
    const uint32_t zone = mImage.catZone(lun, catZone);
    if (!zone) return StatusCode::CLT_ZoneIndexOutOfRange;
    const uint32_t firstChunk = sector / mGeo.sectorsPerChunk;
    const uint32_t lastChunk = (sector + sectors - 1) / mGeo.sectorsPerChunk;
    uint32_t firstByte = ~0u, lastByte = 0;
    for (uint32_t c = firstChunk; c <= lastChunk; ++c) {
        const uint64_t chunk = uint64_t(mGeo.chunksPerZone) * catZone + c;
        if (mImage.chunkWritten(lun, chunk)) continue;
        const uint32_t start = c * mGeo.sectorsPerChunk;
        const uint32_t length = std::min(start + mGeo.sectorsPerChunk, mGeo.sectorsPerCatZone) - start;
        // Zeros reach the disk (written and flushed) before the map bit can.
        StatusCode st = mZmdt->ClearZoneSection(zone, start, length, tracker);
        if (!st.ok()) {
            ESA_CONSOLE("Cleaning CAT Entries Zone failed (" << st << ")");
            return st;
        }
        mImage.setChunkWritten(lun, chunk);
        ++mCounters.chunksCleaned;
        firstByte = std::min(firstByte, mImage.chunkByteOffset(lun, chunk));
        lastByte = std::max(lastByte, mImage.chunkByteOffset(lun, chunk));
    }
    if (firstByte == ~0u) return StatusCode::Success;
    return writeImageRange(firstByte, lastByte, tracker);
}
