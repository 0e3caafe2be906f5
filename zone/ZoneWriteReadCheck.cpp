#include "zone/ZoneWriteReadCheck.h"

#include <algorithm>
#include <cstring>
#include <random>

#include "disk/DiskPackManager.h"
#include "region/RegionManager.h"
#include "zone/ZoneManager.h"
#include "zone/ZoneTable.h"

namespace {
uint32_t patternWord(uint32_t seed, uint32_t wordOffset) {
    uint32_t x = seed * 0x9E3779B9u ^ wordOffset * 0x85EBCA6Bu;
    x ^= x >> 16;
    x *= 0x7FEB352Du;
    x ^= x >> 15;
    return x;
}
}  // namespace

void ZoneDataCheck::fill(DataWindow& window, uint32_t seed, uint32_t zoneOffset) {
    std::vector<uint32_t> words(window.GetLength() / 4);
    for (size_t i = 0; i < words.size(); ++i) words[i] = patternWord(seed, zoneOffset / 4 + uint32_t(i));
    DataBuffer b{uint32_t(words.size() * 4), reinterpret_cast<unsigned char*>(words.data())};
    window.Write(b);
}

bool ZoneDataCheck::matches(const DataWindow& window, uint32_t seed, uint32_t zoneOffset, std::ostream* out) {
    std::vector<uint32_t> words(window.GetLength() / 4);
    DataBuffer b{uint32_t(words.size() * 4), reinterpret_cast<unsigned char*>(words.data())};
    window.Read(b);
    for (size_t i = 0; i < words.size(); ++i) {
        const uint32_t want = patternWord(seed, zoneOffset / 4 + uint32_t(i));
        if (words[i] == want) continue;
        if (out)
            *out << "  mismatch at Zone offset 0x" << std::hex << zoneOffset + i * 4 << ": read 0x" << words[i]
                 << ", expected 0x" << want << std::dec << "\n";
        return false;
    }
    return true;
}

std::vector<ZoneDataCheck::Extent> ZoneDataCheck::randomExtents(uint32_t seed, unsigned count, uint32_t maxLength,
                                                                uint64_t zoneSize) {
    std::mt19937 rng(seed);
    std::vector<Extent> out;
    const uint32_t sectors = uint32_t(zoneSize / 512);
    for (unsigned i = 0; i < count; ++i) {
        uint32_t offset = (rng() % sectors) * 512;
        uint32_t length = (1 + rng() % std::max<uint32_t>(1, maxLength / 512)) * 512;
        if (i % 2 == 0) {  // aligned to stripe blocks
            offset = offset / 0x1000 * 0x1000;
            length = std::max<uint32_t>(0x1000, length / 0x1000 * 0x1000);
        }
        length = uint32_t(std::min<uint64_t>(length, zoneSize - offset));
        out.push_back({offset, length});
    }
    return out;
}

StatusCode ZoneDataCheck::writeExtents(uint32_t zone, uint32_t seed, const std::vector<Extent>& extents,
                                       Result& result, std::ostream* out) {
    StatusCode first = StatusCode::Success;
    for (const Extent& e : extents) {
        DataWindow window(e.length, 0, e.length);
        fill(window, seed, e.offset);
        IOTracker tracker(READ_WRITE);
        StatusCode st = ZoneManager::GetInstance()->WriteData(zone, e.offset, window, tracker);
        tracker.commitIfDirty();
        ++result.writes;
        if (st.ok()) continue;
        ++result.errors;
        if (first.ok()) first = st;
        if (out)
            *out << "  write of Zone " << zone << " [0x" << std::hex << e.offset << ", +0x" << e.length << std::dec
                 << ") failed: " << st << "\n";
    }
    return first;
}

void ZoneDataCheck::readExtents(uint32_t zone, uint32_t seed, const std::vector<Extent>& extents, Result& result,
                                std::ostream* out) {
    for (const Extent& e : extents) {
        DataWindow window(e.length, 0, e.length);
        IOTracker tracker(READ_ONLY);
        StatusCode st = ZoneManager::GetInstance()->ReadData(zone, e.offset, window, tracker);
        tracker.commitIfDirty();
        ++result.reads;
        if (!st.ok()) {
            ++result.errors;
            if (out)
                *out << "  read of Zone " << zone << " [0x" << std::hex << e.offset << ", +0x" << e.length
                     << std::dec << ") failed: " << st << "\n";
            continue;
        }
        if (!matches(window, seed, e.offset, out)) ++result.mismatches;
    }
}

std::vector<unsigned> ZoneDataCheck::columnSlots(const ZoneTableEntry& entry, unsigned column) {
    const unsigned per = RedundancyGeometry::SlotsPerColumn(entry.type());
    std::vector<unsigned> slots;
    for (unsigned s = column * per; s < (column + 1) * per && s < entry.GetRegionCount(); ++s) slots.push_back(s);
    return slots;
}

StatusCode ZoneDataCheck::hideColumns(uint32_t zone, const std::vector<unsigned>& columns, ZoneTableEntry& saved) {
    ZoneTable* table = ZoneTable::GetInstance();
    ExtendingLockObject::ExclusiveLockInstance lock(&table->tableLock());
    StatusCode st = table->LookupZone(zone, saved);
    if (!st.ok()) return st;
    ZoneTableEntry hidden = saved;
    for (unsigned c : columns)
        for (unsigned s : columnSlots(saved, c)) hidden.region[s] = 0;
    return table->UpdateZoneTableEntryInMemory(zone, hidden);
}

StatusCode ZoneDataCheck::restore(const ZoneTableEntry& saved) {
    ZoneTable* table = ZoneTable::GetInstance();
    ExtendingLockObject::ExclusiveLockInstance lock(&table->tableLock());
    return table->UpdateZoneTableEntryInMemory(saved.zoneNumber, saved);
}

void ZoneDataCheck::readWithColumnsHidden(uint32_t zone, uint32_t seed, const std::vector<Extent>& extents,
                                          Result& result, std::ostream* out) {
    ZoneTableEntry entry;
    if (!ZoneTable::GetInstance()->LookupZone(zone, entry).ok()) return;
    const unsigned columns = RedundancyGeometry::ColumnCount(entry.type());
    const unsigned canLose = RedundancyGeometry::ColumnsItCanLose(entry.type());
    std::vector<std::vector<unsigned>> combinations;
    for (unsigned a = 0; canLose >= 1 && a < columns; ++a) {
        if (canLose == 1) combinations.push_back({a});
        for (unsigned b = a + 1; canLose >= 2 && b < columns; ++b) combinations.push_back({a, b});
    }
    for (const auto& hide : combinations) {
        ZoneTableEntry saved;
        if (!hideColumns(zone, hide, saved).ok()) {
            ++result.errors;
            continue;
        }
        Result one;
        readExtents(zone, seed, extents, one, out);
        restore(saved);
        ++result.combinations;
        result.reads += one.reads;
        result.errors += one.errors;
        result.mismatches += one.mismatches;
        if (one.errors || one.mismatches) {
            ++result.failedCombinations;
            if (out) {
                *out << "  Zone " << zone << " with column";
                for (unsigned c : hide) *out << " " << c;
                *out << " missing: " << one.errors << " errors, " << one.mismatches << " mismatches\n";
            }
        }
    }
}

ZoneDataCheck::Result ZoneDataCheck::run(uint32_t zone, uint32_t seed, unsigned count, uint32_t maxLength,
                                         std::ostream* out) {
    Result result;
    const std::vector<Extent> extents =
        randomExtents(seed, count, maxLength, SystemDrivePackInfo::GetInstance()->GetZoneSize());
    writeExtents(zone, seed, extents, result, out);
    readExtents(zone, seed, extents, result, out);
    readWithColumnsHidden(zone, seed, extents, result, out);
    return result;
}

std::vector<uint16_t> ZoneDataCheck::presentDisks() {
    std::vector<uint16_t> out;
    const uint32_t bitmap = DiskPackManager::GetInstance()->presentLogicalDisks();
    for (uint16_t ld = 0; ld < DiskPackManager::maxLogicalDisks; ++ld)
        if (bitmap >> ld & 1) out.push_back(ld);
    return out;
}

StatusCode ZoneDataCheck::makeScratchZone(RedundancyType type, const std::vector<uint16_t>& disks, uint32_t& zone) {
    const unsigned columns = RedundancyGeometry::ColumnCount(type);
    if (columns == 0) return StatusCode::UnsupportedZoneType;
    if (disks.size() < columns) return StatusCode::OutOfSpace;
    ZoneTableEntry entry;
    entry.redundancyType = uint32_t(type);
    entry.clearSlots();
    const unsigned per = RedundancyGeometry::SlotsPerColumn(type);
    IOTracker tracker(READ_WRITE);
    StatusCode st = StatusCode::Success;
    {
        ZoneTable* table = ZoneTable::GetInstance();
        ExtendingLockObject::ExtendingExclusiveLockInstance lock(&table->tableLock(), tracker);
        for (unsigned c = 0; c < columns && st.ok(); ++c) {
            st = RegionManager::GetInstance()->AllocateRegions(disks[c], per, &entry.region[c * per], false, tracker);
            for (unsigned s = c * per; s < (c + 1) * per; ++s) entry.disk[s] = disks[c];
        }
        entry.flags = ZoneTableEntry::kInUse | ZoneTableEntry::kInitComplete;
        if (st.ok()) st = table->InsertEntry(entry, tracker);
        zone = entry.zoneNumber;
    }
    // A failed allocation is given back whole: the transaction ends without the entry.
    StatusCode c = tracker.commitIfDirty();
    return st.ok() ? c : st;
}

StatusCode ZoneDataCheck::freeScratchZone(uint32_t zone) {
    IOTracker tracker(READ_WRITE);
    StatusCode st = ZoneManager::GetInstance()->DeallocateZone(zone, tracker);
    StatusCode c = tracker.commitIfDirty();
    return st.ok() ? c : st;
}
