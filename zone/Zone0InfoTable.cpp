#include "zone/Zone0InfoTable.h"

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <sstream>

#include "cache/ZoneMetaDataTracker.h"
#include "include/DrivePackInfo.h"
#include "management/EventLogManager.h"
#include "region/RegionManager.h"
#include "system/SystemManager.h"
#include "util/Trace.h"
#include "zone/ZoneManager.h"

namespace {

Trace tZ0it("Z0IT", "Info", "Info", false);

std::string signatureText(const uint8_t* sig) {
    std::string s;
    for (unsigned i = 0; i < 8; ++i)
        if (sig[i]) s += char(sig[i]);
    return s;
}

void signatureBytes(const char* text, uint8_t out[8]) {
    std::memset(out, 0, 8);
    if (text) std::memcpy(out, text, std::min<size_t>(8, std::strlen(text)));
}

constexpr uint32_t kSector = 512;

}  // namespace

Zone0InfoTable* Zone0InfoTable::GetInstance() {
    static Zone0InfoTable instance;
    return &instance;
}

void Zone0InfoTable::postEvent(const std::string& text) {
    ESA_TRACE(tZ0it, text);
    if (EventLogManager* log = EventLogManager::EventLog()) log->PostEvent(text);
}

uint64_t Zone0InfoTable::zoneSize() const {
    SystemDrivePackInfo* info = SystemDrivePackInfo::GetInstance();
    // An in-memory Zone 0 has the size of a default Zone.
    if (mMemoryZone && !info->isSet(SystemDrivePackInfo::ZoneSize)) return 24ull * 0x2AA8000;
    return info->GetZoneSize();
}

void Zone0InfoTable::UseMemoryZone() {
    mMemoryZone = true;
    mMemory.clear();
    mTable = Zone0Directory::Empty();
    mLoaded = true;
}

StatusCode Zone0InfoTable::readZone(uint64_t offset, uint8_t* buffer, uint32_t length, IOTracker& tracker) {
    if (!mMemoryZone)
        return ZoneMetaDataTracker::GetInstance()->ReadThroughCache(buffer, length / kSector, 0, offset, tracker);
    for (uint32_t done = 0; done < length; done += kSector) {
        auto it = mMemory.find(offset + done);
        if (it == mMemory.end()) std::memset(buffer + done, 0, kSector);
        else std::memcpy(buffer + done, it->second.data(), kSector);
    }
    return StatusCode::Success;
}

StatusCode Zone0InfoTable::writeZone(uint64_t offset, const uint8_t* buffer, uint32_t length, IOTracker& tracker) {
    if (!mMemoryZone)
        return ZoneMetaDataTracker::GetInstance()->WriteThroughCache(const_cast<uint8_t*>(buffer), length / kSector, 0,
                                                                     offset, tracker);
    for (uint32_t done = 0; done < length; done += kSector)
        mMemory[offset + done].assign(buffer + done, buffer + done + kSector);
    return StatusCode::Success;
}

StatusCode Zone0InfoTable::WriteZ0IT(IOTracker& tracker) {
    LockObject::ExclusiveLockInstance lock(&mLock);
    mTable.Seal();
    std::vector<uint8_t> block(Zone0Directory::kBlockSize, 0);
    mTable.Encode(block.data());
    return writeZone(0, block.data(), Zone0Directory::kBlockSize, tracker);
}

bool Zone0InfoTable::entryValid(unsigned entry, const char* signature, uint32_t version) {
    if (!mLoaded || entry >= kEntries) return false;
    const Zone0UserInfo& e = mTable.entries[entry];
    uint8_t sig[8];
    signatureBytes(signature, sig);
    return e.inUse() && e.version == version && std::memcmp(e.userSignature, sig, 8) == 0;
}

StatusCode Zone0InfoTable::findZone0Space(uint32_t required, uint64_t& offset) {
    return mTable.findZone0Space(required, zoneSize(), offset);
}

StatusCode Zone0InfoTable::CreateEntry(unsigned index, uint32_t version, uint32_t size, const char* userSignature,
                                       IOTracker& tracker) {
    if (!mLoaded) return StatusCode::DiskPackNotLoaded;
    if (index >= kEntries) return StatusCode::BadCommand;
    Zone0UserInfo& e = mTable.entries[index];
    if (e.inUse()) return StatusCode::Success;
    const uint32_t rounded = (size + kSector - 1) / kSector * kSector;
    uint64_t offset = 0;
    // An owner that asks for more than Zone 0 holds gets an error, not a
    // restart: the pack stays loadable and the owner reports its failure.
    if (rounded == 0 || findZone0Space(rounded, offset) != StatusCode::Success || offset + rounded >= zoneSize()) {
        ESA_CONSOLE("FAILED TO ALLOCATE ZONE0 SPACE: entry " << index << " size " << rounded);
        return StatusCode::OutOfSpace;
    }
    e.zone = 0;
    e.startOffset = uint32_t(offset);
    e.length = rounded;
    e.version = version;
    signatureBytes(userSignature, e.userSignature);
    StatusCode st = WriteZ0IT(tracker);
    if (st != StatusCode::Success) {
        e.clear();
        return st;
    }
    std::ostringstream os;
    os << "Z0IT: creating entry " << index << " for " << signatureText(e.userSignature) << " in zone " << e.zone
       << " offset " << e.startOffset << " entry size = " << e.length << " version " << e.version;
    postEvent(os.str());
    return StatusCode::Success;
}

StatusCode Zone0InfoTable::EraseEntry(unsigned index, IOTracker& tracker) {
    if (!mLoaded) return StatusCode::DiskPackNotLoaded;
    if (index >= kEntries) return StatusCode::BadCommand;
    Zone0UserInfo& e = mTable.entries[index];
    postEvent("Z0IT: erasing entry " + std::to_string(index) + " for " + signatureText(e.userSignature));
    e.clear();
    return WriteZ0IT(tracker);
}

StatusCode Zone0InfoTable::UpdateVersionNumber(unsigned index, uint32_t version, IOTracker& tracker) {
    if (!mLoaded) return StatusCode::DiskPackNotLoaded;
    if (index >= kEntries) return StatusCode::BadCommand;
    mTable.entries[index].version = version;
    return WriteZ0IT(tracker);
}

StatusCode Zone0InfoTable::CreateEntry(unsigned entry, uint32_t version, uint32_t size, const char* signature) {
    IOTracker tracker(READ_WRITE);
    StatusCode st = CreateEntry(entry, version, size, signature, tracker);
    StatusCode c = tracker.commit();
    return st != StatusCode::Success ? st : c;
}

StatusCode Zone0InfoTable::EraseEntry(unsigned entry) {
    IOTracker tracker(READ_WRITE);
    StatusCode st = EraseEntry(entry, tracker);
    StatusCode c = tracker.commit();
    return st != StatusCode::Success ? st : c;
}

StatusCode Zone0InfoTable::ReadArea(unsigned entry, uint8_t* buffer, uint32_t length) {
    if (!mLoaded || entry >= kEntries || !mTable.entries[entry].inUse()) return StatusCode::CorruptedZone0Entry;
    const Zone0UserInfo& e = mTable.entries[entry];
    const uint32_t n = std::min(length, e.length);
    std::vector<uint8_t> flat((n + kSector - 1) / kSector * kSector);
    IOTracker tracker(READ_ONLY);
    StatusCode st = readZone(e.startOffset, flat.data(), uint32_t(flat.size()), tracker);
    tracker.commitIfDirty();
    if (st == StatusCode::Success) std::memcpy(buffer, flat.data(), n);
    return st;
}

StatusCode Zone0InfoTable::WriteArea(unsigned entry, const uint8_t* buffer, uint32_t length) {
    if (!mLoaded || entry >= kEntries || !mTable.entries[entry].inUse()) return StatusCode::CorruptedZone0Entry;
    const Zone0UserInfo& e = mTable.entries[entry];
    const uint32_t n = std::min(length, e.length);
    std::vector<uint8_t> flat((n + kSector - 1) / kSector * kSector, 0);
    IOTracker tracker(READ_WRITE);
    StatusCode st = StatusCode::Success;
    // A partial last sector keeps what the area held beyond the caller's bytes.
    if (n % kSector) st = readZone(e.startOffset + flat.size() - kSector, flat.data() + flat.size() - kSector, kSector,
                                   tracker);
    std::memcpy(flat.data(), buffer, n);
    if (st == StatusCode::Success) st = writeZone(e.startOffset, flat.data(), uint32_t(flat.size()), tracker);
    tracker.setFlushFlag();
    StatusCode c = tracker.commit();
    return st != StatusCode::Success ? st : c;
}

bool Zone0InfoTable::initializeAllowed() const {
    return SystemManager::GetInstance()->clearDiskRequested() || ZoneManager::GetInstance()->zoneZeroBornThisLoad() ||
           mNeverLaidOut;
}

bool Zone0InfoTable::zoneZeroOwned() {
    // Without recovery space no owner is kept: the directory's absence cannot
    // be told from its loss, so it counts as owned (never initialised over).
    RegionManager* rm = RegionManager::GetInstance();
    if (!rm->RecoverySpaceEnabled()) return true;
    ZoneTableEntry zero;
    if (ZoneTable::GetInstance()->RawLookupZone(0, zero) != StatusCode::Success) return true;
    IOTracker tracker(READ_ONLY);
    bool owned = true;
    for (unsigned s = 0; s < ZoneTableEntry::kSlots; ++s) {
        if (zero.region[s] == 0) continue;
        _ZoneOwnership owner;
        if (rm->GetZoneOwnership(zero.disk[s], zero.region[s], owner, tracker) != StatusCode::Success) continue;
        owned = owner.owner == _ZoneOwnership::kZ0IT;
        break;
    }
    tracker.commitIfDirty();
    return owned;
}

StatusCode Zone0InfoTable::InitializeDiskPack() {
    if (!initializeAllowed()) {
        ESA_CONSOLE("Z0IT: the Zone 0 directory is unreadable and the pack is not being cleared - not initialising it");
        return StatusCode::BadSignature;
    }
    mTable = Zone0Directory::Empty();
    IOTracker tracker(READ_WRITE);
    // The first directory and Zone 0's owner go in one set: a power cut
    // leaves both or neither, so the next load still knows the Zone was
    // never laid out.
    StatusCode st = WriteZ0IT(tracker);
    if (st == StatusCode::Success && mNeverLaidOut) st = stampZoneZero(tracker);
    StatusCode c = tracker.commit();
    return st != StatusCode::Success ? st : c;
}

StatusCode Zone0InfoTable::LoadZ0IT(bool readOnly) {
    std::vector<uint8_t> block(Zone0Directory::kBlockSize);
    {
        IOTracker tracker(READ_ONLY);
        StatusCode st = readZone(0, block.data(), Zone0Directory::kBlockSize, tracker);
        tracker.commitIfDirty();
        if (st != StatusCode::Success) return st;
    }
    mTable.Decode(block.data());
    if (readOnly) return StatusCode::ReadOnlyMode;
    if (mTable.version == 2) {
        postEvent("Z0IT: upgrade Z0IT from v2 to v3");
        mTable.UpgradeFromVersion2();
    }
    // No directory on a Zone 0 no directory ever owned: the start that made
    // the pack was cut before it laid the directory out. The owner is then
    // stamped with the directory, not before it.
    mNeverLaidOut = !mTable.signatureValid() && !zoneZeroOwned();
    if (mNeverLaidOut) {
        postEvent("Z0IT: Zone 0 was never laid out - its directory will be made");
        return StatusCode::Success;
    }
    IOTracker tracker(READ_WRITE);
    StatusCode st = stampZoneZero(tracker);
    StatusCode c = tracker.commit();
    return st != StatusCode::Success ? st : c;
}

StatusCode Zone0InfoTable::stampZoneZero(IOTracker& tracker) {
    ZoneTable& table = *ZoneTable::GetInstance();
    StatusCode st = StatusCode::Success;
    {
        ExtendingLockObject::ExtendingExclusiveLockInstance lock(&table.tableLock(), tracker);
        ZoneTableEntry zero;
        st = table.RawLookupZone(0, zero);
        if (st == StatusCode::Success &&
            (zero.flags & (ZoneTableEntry::kMirrorOnly | ZoneTableEntry::kMetadata)) !=
                (ZoneTableEntry::kMirrorOnly | ZoneTableEntry::kMetadata)) {
            zero.flags |= ZoneTableEntry::kMirrorOnly | ZoneTableEntry::kMetadata;
            postEvent("Z0IT: upgrade zone 0 to MirrorOnly/Metadata");
            st = table.UpdateZoneTableEntry(0, zero, tracker);
        }
        _ZoneOwnership owner;
        owner.owner = _ZoneOwnership::kZ0IT;
        owner.words[0] = 0;
        if (st == StatusCode::Success) st = ZoneManager::GetInstance()->SetZoneOwnership(0, owner, tracker);
    }
    return st;
}

StatusCode Zone0InfoTable::Validate() {
    if (!mTable.signatureValid()) return StatusCode::BadSignature;
    if (mTable.crc == 0) {
        mTable.size = Zone0Directory::kSize;
        IOTracker tracker(READ_WRITE);
        StatusCode st = WriteZ0IT(tracker);
        StatusCode c = tracker.commit();
        return st != StatusCode::Success ? st : c;
    }
    const uint32_t actual = mTable.ComputeCrc();
    if (actual != mTable.crc) {
        ESA_CONSOLE("Z0IT: Bad checksum, actual 0x" << std::hex << std::setw(8) << std::setfill('0') << actual
                                                    << " stored 0x" << std::setw(8) << mTable.crc);
        return StatusCode::BadMetadataCRC;
    }
    return StatusCode::Success;
}

StatusCode Zone0InfoTable::LoadDiskPack() { return LoadDiskPack(false); }

StatusCode Zone0InfoTable::LoadDiskPack(bool readOnly) {
    mMemoryZone = false;
    mNeverLaidOut = false;
    StatusCode st = LoadZ0IT(readOnly);
    if (st != StatusCode::Success && st != StatusCode::ReadOnlyMode) return st;
    mLoaded = true;
    st = Validate();
    if (st == StatusCode::BadMetadataCRC) {
        mLoaded = false;
        return st;
    }
    if (st == StatusCode::BadSignature) {
        if (readOnly) {
            mLoaded = false;
            return StatusCode::ReadOnlyMode;
        }
        st = InitializeDiskPack();
        if (st != StatusCode::Success) {
            mLoaded = false;
            return st;
        }
    }
    return mLoaded ? StatusCode::Success : StatusCode::DiskPackNotLoaded;
}

StatusCode Zone0InfoTable::UnloadDiskPack() {
    mLoaded = false;
    mNeverLaidOut = false;
    mTable = Zone0Directory{};
    if (mMemoryZone) UseMemoryZone();
    return StatusCode::Success;
}

void Zone0InfoTable::Dump(std::ostream& out) {
    out << "Z0IT: size = 0x" << std::hex << mTable.size << " CRC = 0x" << mTable.crc << std::dec
        << " version = " << mTable.version << " numEntries = " << mTable.numEntries << "\n";
    bool any = false;
    for (unsigned i = 0; i < kEntries; ++i) {
        const Zone0UserInfo& e = mTable.entries[i];
        if (!e.inUse()) continue;
        if (!any) out << "Entry startOffset    length  version   userSignature\n";
        any = true;
        out << std::setw(5) << i << " 0x" << std::hex << std::setw(9) << std::setfill('0') << e.startOffset << " 0x"
            << std::setw(7) << e.length << std::setfill(' ') << std::dec << " " << std::setw(8) << e.version << "  ";
        for (uint8_t b : e.userSignature) out << std::hex << std::setw(2) << std::setfill('0') << unsigned(b);
        out << std::dec << std::setfill(' ') << " \"" << signatureText(e.userSignature) << "\"\n";
    }
    if (!any) out << "No allocated Z0IT entries\n";
    const auto map = mTable.getAllocatedSpaceMap();
    uint64_t total = 0, smallest = UINT64_MAX, largest = 0;
    for (size_t i = 0; i + 1 < map.size(); ++i) {
        if (map[i + 1].first <= map[i].second + 1) continue;
        const uint64_t gap = map[i + 1].first - map[i].second - 1;
        total += gap;
        smallest = std::min(smallest, gap);
        largest = std::max(largest, gap);
    }
    const uint64_t zs = mLoaded ? zoneSize() : 0;
    const uint64_t after = zs > map.back().second + 1 ? zs - map.back().second - 1 : 0;
    out << "Total Free (bytes)     = " << total + after << "\n";
    if (smallest == UINT64_MAX) out << "NO FRAGMENTATION\n";
    else out << "Smallest free frag     = " << smallest << "\n";
    out << "Largest free frag      = " << largest << "\n";
    out << "Space after last alloc = " << after << "\n";
}
