// RecoveryBlocks: the record in each Region's padding sector, and its upkeep.
#include <cstring>
#include <vector>

#include "disk/DiskPackManager.h"
#include "region/RegionInternal.h"
#include "region/RegionManager.h"
#include "util/Crc.h"
#include "util/Endian.h"

namespace RecoveryBlockFormat {
void encodeOwnership(const _ZoneOwnership& o, uint8_t* at) {
    putLE32(at, o.owner);
    for (unsigned i = 0; i < 16; ++i) putLE32(at + 4 + 4 * i, o.words[i]);
}

_ZoneOwnership decodeOwnership(const uint8_t* at) {
    _ZoneOwnership o;
    o.owner = getLE32(at);
    for (unsigned i = 0; i < 16; ++i) o.words[i] = getLE32(at + 4 + 4 * i);
    return o;
}

uint32_t expectedCrc(const uint8_t* s) {
    uint8_t copy[RecoveryBlock::kRecordBytes];
    std::memcpy(copy, s, sizeof copy);
    std::memset(copy + kCrcOffset, 0, 4);
    return GetCRC(copy, sizeof copy);
}

void encode(RecoveryBlock& b, uint8_t* s) {
    std::memset(s, 0, 512);
    putLE32(s + 0x00, b.magic);
    putLE32(s + 0x08, b.version);
    putLE32(s + 0x10, b.packId.word[0]);
    putLE32(s + 0x14, b.packId.word[1]);
    putLE16(s + 0x18, b.logicalDisk);
    putLE32(s + 0x1C, b.regionSize);
    putLE32(s + 0x20, b.regionType);
    putLE32(s + 0x24, b.ris.nextMetadataRegion);
    putLE32(s + 0x28, b.ris.nextUserdataRegion);
    encodeOwnership(b.zis.ownership, s + kOwnershipOffset);
    putLE32(s + 0x70, b.zis.zoneNumber);
    putLE16(s + 0x74, b.zis.arrayIndex);
    putLE32(s + 0x78, b.zis.zoneFlags);
    putLE32(s + 0x7C, b.zis.redundancyType);
    putLE64(s + 0x80, b.recoveryGeneration);
    b.crc = expectedCrc(s);
    putLE32(s + kCrcOffset, b.crc);
}

RecoveryBlock decode(const uint8_t* s) {
    RecoveryBlock b;
    b.magic = getLE32(s + 0x00);
    b.crc = getLE32(s + 0x04);
    b.version = getLE32(s + 0x08);
    b.packId.word[0] = getLE32(s + 0x10);
    b.packId.word[1] = getLE32(s + 0x14);
    b.logicalDisk = getLE16(s + 0x18);
    b.regionSize = getLE32(s + 0x1C);
    b.regionType = getLE32(s + 0x20);
    b.ris.nextMetadataRegion = getLE32(s + 0x24);
    b.ris.nextUserdataRegion = getLE32(s + 0x28);
    b.zis.ownership = decodeOwnership(s + kOwnershipOffset);
    b.zis.zoneNumber = getLE32(s + 0x70);
    b.zis.arrayIndex = getLE16(s + 0x74);
    b.zis.zoneFlags = getLE32(s + 0x78);
    b.zis.redundancyType = getLE32(s + 0x7C);
    b.recoveryGeneration = getLE64(s + 0x80);
    return b;
}

void print(const RecoveryBlock& b, std::ostream& out) {
    static const char* const kTypes[] = {"ZIS", "ZONE", "RIS"};
    static const char* const kOwners[] = {"None", "Z0IT", "CATM", "CM"};
    out << "  DiskPackID: " << std::hex << b.packId.word[0] << ":" << b.packId.word[1] << std::dec << "\n"
        << "  LogicalDisk: " << b.logicalDisk << "\n"
        << "  RegionSize: " << b.regionSize << "\n"
        << "  Region Type: " << (b.regionType < 3 ? kTypes[b.regionType] : "?") << " (" << b.regionType << ")\n";
    if (b.regionType == RegionTypeRIS)
        out << "  Next Metadata Region#: " << b.ris.nextMetadataRegion << "\n"
            << "  Next Userdata Region#: " << b.ris.nextUserdataRegion << "\n";
    const _ZoneOwnership& o = b.zis.ownership;
    out << "  Owner: " << (o.owner < 4 ? kOwners[o.owner] : "?") << " (" << o.owner << ")";
    if (o.owner == _ZoneOwnership::kZ0IT) out << " Index# " << o.words[0];
    if (o.owner == _ZoneOwnership::kCATM) out << " Index# " << o.words[0] << " LUN# " << o.words[1];
    out << "\n  ZoneNumber: " << b.zis.zoneNumber << "\n"
        << "  ArrayIndex: " << b.zis.arrayIndex << "\n"
        << "  ZoneFlags: 0x" << std::hex << b.zis.zoneFlags << std::dec << "\n"
        << "  RedundancyType: 0x" << std::hex << b.zis.redundancyType << std::dec << "\n"
        << "  RecoveryGen#: " << b.recoveryGeneration << "\n";
}
}  // namespace RecoveryBlockFormat

using namespace RecoveryBlockFormat;

// The padding sector after the Region; only where the disk has one.
StatusCode RegionManager::recoveryBlockLba(uint16_t ld, uint32_t region, uint32_t& lba) {
    LogicalDiskMap* m = map(ld);
    if (!m) return StatusCode::DiskNotPresent;
    if (!mRecoverySpace || m->header.padding == 0) {
        ESA_TRACE(tRM, "RM: LD #" << ld << " Region " << region << " : RecoveryBlock not available");
        return StatusCode::InternalError;
    }
    if (region >= m->regions()) return StatusCode::RM_RegionNumberInvalid;
    uint64_t at = uint64_t(region) * m->stride() + m->regionSectors();
    if (at >= m->capacity) return StatusCode::RM_RegionNumberInvalid;
    lba = uint32_t(at);
    return StatusCode::Success;
}

StatusCode RegionManager::WriteRecoveryBlock(uint16_t ld, uint32_t region, _RegionType type, const _ZISRecovery* zis,
                                             const _RISRecovery* ris, IOTracker& tracker) {
    ExtendingLockObject::SharedLockInstance g(&mMapLock, tracker);
    if (!mReadWrite) return StatusCode::ReadOnlyMode;
    uint32_t lba = 0;
    StatusCode st = recoveryBlockLba(ld, region, lba);
    if (st != StatusCode::Success) return st;
    RecoveryBlock b;
    b.magic = RecoveryBlock::kMagic;
    b.version = kVersion;
    b.packId = DiskPackManager::GetInstance()->packId();
    b.logicalDisk = ld;
    b.regionSize = uint32_t(RegionSizeBytes());
    b.regionType = type;
    if (ris) b.ris = *ris;
    if (zis) {
        b.zis = *zis;
        b.recoveryGeneration = mRecoveryGeneration;
    }
    uint8_t sector[512];
    encode(b, sector);
    return writeSectors(ld, sector, 1, lba, tracker);
}

StatusCode RegionManager::ReadRecoveryBlock(uint16_t ld, uint32_t region, RecoveryBlock& block, IOTracker& tracker) {
    ExtendingLockObject::SharedLockInstance g(&mMapLock, tracker);
    uint32_t lba = 0;
    StatusCode st = recoveryBlockLba(ld, region, lba);
    if (st != StatusCode::Success) return st;
    uint8_t sector[512];
    st = readSectors(ld, sector, 1, lba, tracker);
    if (st != StatusCode::Success) return st;
    block = decode(sector);
    return StatusCode::Success;
}

// Reads one padding sector for `what`, with the map lock held by the caller.
StatusCode RegionManager::readRecoveryBlockSector(uint16_t ld, uint32_t region, const char* what, uint8_t* sector,
                                                  uint32_t& lba, IOTracker& tracker) {
    StatusCode st = recoveryBlockLba(ld, region, lba);
    if (st != StatusCode::Success) return st;
    st = readSectors(ld, sector, 1, lba, tracker);
    if (st != StatusCode::Success)
        ESA_CONSOLE("RM::" << what << ": LD #" << ld << " Region " << region << " : RecoveryBlock not readable");
    return st;
}

// Read, change, write back one padding sector within the caller's transaction.
StatusCode RegionManager::rewriteRecoveryBlock(uint16_t ld, uint32_t region, const char* what, IOTracker& tracker,
                                               void (*change)(uint8_t* sector, const void* arg), const void* arg) {
    ExtendingLockObject::SharedLockInstance g(&mMapLock, tracker);
    if (!mReadWrite) return StatusCode::ReadOnlyMode;
    uint32_t lba = 0;
    uint8_t sector[512];
    StatusCode st = readRecoveryBlockSector(ld, region, what, sector, lba, tracker);
    if (st != StatusCode::Success) return st;
    change(sector, arg);
    return writeSectors(ld, sector, 1, lba, tracker);
}

StatusCode RegionManager::InvalidateRecoveryBlock(uint16_t ld, uint32_t region, IOTracker& tracker) {
    return rewriteRecoveryBlock(
        ld, region, "InvalidateRecoveryBlock", tracker,
        [](uint8_t* s, const void*) { std::memset(s + kCrcOffset, 0, 4); }, nullptr);
}

StatusCode RegionManager::SetZoneOwnership(uint16_t ld, uint32_t region, const _ZoneOwnership& ownership,
                                           IOTracker& tracker) {
    return rewriteRecoveryBlock(
        ld, region, "SetZoneOwnership", tracker,
        [](uint8_t* s, const void* arg) {
            encodeOwnership(*static_cast<const _ZoneOwnership*>(arg), s + kOwnershipOffset);
            putLE32(s + kCrcOffset, expectedCrc(s));
        },
        &ownership);
}

StatusCode RegionManager::GetZoneOwnership(uint16_t ld, uint32_t region, _ZoneOwnership& ownership,
                                           IOTracker& tracker) {
    ExtendingLockObject::SharedLockInstance g(&mMapLock, tracker);
    if (!mReadWrite) return StatusCode::ReadOnlyMode;
    uint32_t lba = 0;
    uint8_t sector[512];
    StatusCode st = readRecoveryBlockSector(ld, region, "GetZoneOwnership", sector, lba, tracker);
    if (st != StatusCode::Success) return st;
    ownership = decodeOwnership(sector + kOwnershipOffset);
    return StatusCode::Success;
}

StatusCode RegionManager::IncrementRecoveryGeneration(IOTracker& tracker) {
    ExtendingLockObject::SharedLockInstance g(&mMapLock, tracker);
    if (!mReadWrite) return StatusCode::ReadOnlyMode;
    uint64_t generation = ++mRecoveryGeneration;
    StatusCode result = StatusCode::Success;
    for (auto& m : mMaps) {
        if (!m) continue;
        ExtendingLockObject::ExtendingExclusiveLockInstance d(&m->lock, tracker);
        m->header.recoveryGeneration = generation;
        StatusCode st = WriteRMMD(*m, 0, 0, tracker, false);
        if (st != StatusCode::Success) {
            ESA_CONSOLE("RM::IncrementRecoveryGeneration: LD #"
                        << m->ld << " - error setting RecoveryGeneration number: " << st);
            result = st;
        }
    }
    return result;
}

void RegionManager::FindRecoveryBlocks(uint32_t regionSize, std::ostream& out) {
    DiskPackManager* dpm = DiskPackManager::GetInstance();
    uint32_t present = dpm->presentLogicalDisks();
    IOTracker tracker(READ_ONLY);
    for (uint16_t ld = 0; ld < kMaxLogicalDisks; ++ld) {
        if (!(present >> ld & 1)) continue;
        uint32_t capacity = 0;
        if (dpm->getCapacity(ld, capacity) != StatusCode::Success) continue;
        auto inspect = [&](const uint8_t* s, uint32_t lba) {
            if (getLE32(s) != RecoveryBlock::kMagic) return;
            out << "FindRecoveryBlocks: Found possible RecoveryBlock on LD#" << ld << " at LBA " << lba << "\n";
            RecoveryBlock b = decode(s);
            uint32_t expected = expectedCrc(s);
            if (b.crc == expected)
                out << "FindRecoveryBlocks: Checksum validation PASSED\n";
            else
                out << "FindRecoveryBlocks: Checksum validation FAILED (expected = 0x" << std::hex << expected
                    << ", actual = 0x" << b.crc << std::dec << ")\n";
            if (b.version == kVersion)
                print(b, out);
            else
                out << "Unsupported RecoveryBlock version number = " << b.version << "\n";
        };
        if (regionSize != 0 && regionSize != 512) {
            uint32_t rlba = regionSize / 512, stride = rlba + 1;
            DataWindow window(512, 0, 512);
            std::vector<uint8_t> s(512);
            for (uint64_t lba = rlba; lba < capacity; lba += stride) {
                if (dpm->readData(ld, window, uint32_t(lba), tracker) != StatusCode::Success) continue;
                DataBuffer b{512, s.data()};
                window.Read(b);
                inspect(s.data(), uint32_t(lba));
            }
        } else {
            constexpr uint32_t kPiece = 128;  // sectors: 64 KiB
            uint32_t end = capacity / 20;
            DataWindow window(kPiece * 512, 0, kPiece * 512);
            std::vector<uint8_t> s(kPiece * 512);
            for (uint32_t lba = 0; lba < end; lba += kPiece) {
                uint32_t n = std::min(kPiece, end - lba);
                DataWindow piece(window, 0, n * 512);
                if (dpm->readData(ld, piece, lba, tracker) != StatusCode::Success) continue;
                DataBuffer b{n * 512, s.data()};
                piece.Read(b);
                for (uint32_t k = 0; k < n; ++k) inspect(s.data() + k * 512, lba + k);
            }
        }
    }
}
