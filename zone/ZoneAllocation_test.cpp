// Zone allocation on simulated disks: the types chosen for 1 to 8 disks with
// dual redundancy off and on, the sequence of types on mixed sizes until
// OutOfSpace against the rules' model, the reserved Zones, reuse of freed
// entries, Zone 1's clean-up at load, and the placement of every reachable
// type over the Regions that allocation hands out.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <thread>

#include "zone/ZoneAllocationModel.h"
#include "zone/ZoneTableTestSupport.h"

namespace {

using RT = RedundancyType;
std::string name(RT t) { return RedundancyGeometry::DecodeRedundancyType(uint32_t(t)); }

class ZoneAllocationOnDisks : public ZoneTableTestFixture {
protected:
    std::vector<uint64_t> freeCounts() {
        std::vector<uint64_t> v;
        IOTracker t(READ_ONLY);
        for (uint16_t ld = 0; ld < 8; ++ld) {
            if (!DiskPackManager::GetInstance()->isPresent(ld)) continue;
            uint32_t c = 0;
            EXPECT_EQ(rm()->GetFreeRegionCount(ld, c, t), StatusCode::Success);
            v.push_back(c);
        }
        t.commitIfDirty();
        return v;
    }
    bool isAllocated(uint16_t ld, uint32_t region) {
        bool a = false;
        IOTracker t(READ_ONLY);
        EXPECT_EQ(rm()->IsAllocated(ld, region, a, t), StatusCode::Success);
        t.commitIfDirty();
        return a;
    }
};

TEST_F(ZoneAllocationOnDisks, OneToEightDisksDualOffAndOn) {
    const RT off[] = {RT::SelfMirrored, RT::Mirrored, RT::HStripe3, RT::HStripe4,
                      RT::HStripe5,     RT::HStripe5, RT::HStripe7, RT::HStripe7};
    const RT on[] = {RT::SelfMirrored, RT::Mirrored, RT::Mirrored3, RT::DRStripe4,
                     RT::DRStripe5,    RT::DRStripe6, RT::DRStripe6, RT::DRStripe8};
    for (size_t disks = 1; disks <= 8; ++disks) {
        SCOPED_TRACE(std::to_string(disks) + " disks");
        unloadZones();
        reset();
        rm()->UnloadDiskPack();
        makeZonePack(std::vector<std::string>(disks, "20G"));
        RT type = RT::Unset;
        allocate(&type);
        EXPECT_EQ(name(type), name(off[disks - 1]));
        ASSERT_EQ(table().SetDualRedundancyMode(true), StatusCode::Success);
        allocate(&type);
        EXPECT_EQ(name(type), name(on[disks - 1]));
        // Metadata Zones: mirrored, three copies in dual mode.
        IOTracker t(READ_WRITE);
        uint32_t zone = 0;
        ASSERT_EQ(zm()->AllocateMetadataZone(zone, t), StatusCode::Success);
        t.commit();
        ZoneTableEntry e;
        table().RawLookupZone(zone, e);
        EXPECT_EQ(name(e.type()), name(disks == 1 ? RT::SelfMirrored : disks == 2 ? RT::Mirrored : RT::Mirrored3));
    }
}

TEST_F(ZoneAllocationOnDisks, MixedSizesFollowTheRulesUntilOutOfSpace) {
    for (bool dual : {false, true}) {
        SCOPED_TRACE(dual ? "dual on" : "dual off");
        unloadZones();
        reset();
        rm()->UnloadDiskPack();
        makeZonePack({"9G", "4G", "6G", "3G", "5G"});
        if (dual) {
            ASSERT_EQ(table().SetDualRedundancyMode(true), StatusCode::Success);
        }
        std::map<std::string, unsigned> seen;
        for (unsigned step = 0;; ++step) {
            ASSERT_LT(step, 500u);
            std::vector<uint64_t> counts = freeCounts();
            ZoneAllocationModel::Type want{};
            const bool fits = ZoneAllocationModel::choose(counts, dual, want);
            IOTracker t(READ_WRITE);
            uint32_t zone = 0;
            StatusCode st = zm()->AllocateZone(zone, t);
            t.commit();
            if (!fits) {
                EXPECT_EQ(st, StatusCode::OutOfSpace) << "step " << step;
                break;
            }
            ASSERT_EQ(st, StatusCode::Success) << "step " << step;
            ZoneTableEntry e;
            table().RawLookupZone(zone, e);
            ASSERT_EQ(name(e.type()), name(want.type)) << "step " << step;
            ++seen[name(e.type())];
            // The Regions really left the disks the rules say.
            ZoneAllocationModel::take(counts, want);
            std::vector<uint64_t> now = freeCounts();
            std::sort(now.begin(), now.end());
            std::sort(counts.begin(), counts.end());
            ASSERT_EQ(now, counts) << "step " << step;
        }
        EXPECT_GE(seen.size(), 2u) << "the sequence narrowed as the disks filled";
        // Out of space leaves the table as it was.
        const uint32_t created = table().entriesCreated();
        IOTracker t(READ_WRITE);
        uint32_t zone = 0;
        EXPECT_EQ(zm()->AllocateZone(zone, t), StatusCode::OutOfSpace);
        t.commitIfDirty();
        EXPECT_EQ(table().entriesCreated(), created);
    }
}

TEST_F(ZoneAllocationOnDisks, ReservedZonesCannotBeDeallocated) {
    makeZonePack({"20G", "20G"});
    ZoneTableEntry zeroBefore, zero;
    table().RawLookupZone(0, zeroBefore);
    IOTracker t(READ_WRITE);
    EXPECT_EQ(zm()->DeallocateZone(0, t), StatusCode::InvalidZoneNumber);
    EXPECT_EQ(zm()->DeallocateZone(1, t), StatusCode::InvalidZoneNumber);
    t.commitIfDirty();
    table().RawLookupZone(0, zero);
    EXPECT_TRUE(zero.Matches(zeroBefore));
    EXPECT_EQ(table().CheckZoneValid(1), StatusCode::Success);
}

TEST_F(ZoneAllocationOnDisks, FreedEntriesAreReusedLowestFirstAndTheirRegionsGoBack) {
    makeZonePack({"20G", "20G", "20G"});
    const uint32_t a = allocate(), b = allocate(), c = allocate();
    ASSERT_EQ(a, 2u);
    ASSERT_EQ(c, 4u);
    ZoneTableEntry eb;
    table().RawLookupZone(b, eb);
    IOTracker t(READ_WRITE);
    ASSERT_EQ(zm()->DeallocateZone(b, t), StatusCode::Success);
    ASSERT_EQ(zm()->DeallocateZone(a, t), StatusCode::Success);
    t.commit();
    for (unsigned s = 0; s < eb.GetRegionCount(); ++s) EXPECT_FALSE(isAllocated(eb.disk[s], eb.region[s])) << s;
    ZoneTableEntry gone;
    EXPECT_EQ(table().LookupZone(b, gone), StatusCode::InvalidZoneNumber);
    EXPECT_EQ(table().RawLookupZone(b, gone), StatusCode::Success);
    EXPECT_FALSE(gone.HasRegions());
    EXPECT_EQ(allocate(), a);
    EXPECT_EQ(allocate(), b);
    EXPECT_EQ(table().entriesCreated(), 5u) << "the table did not grow";
    // The same survives a restart.
    ASSERT_EQ(reloadZones(), StatusCode::Success);
    EXPECT_EQ(table().CheckZoneValid(b), StatusCode::Success);
    EXPECT_EQ(table().entriesInUse(), 5u);
}

TEST_F(ZoneAllocationOnDisks, ZoneOneCleanupAtLoadKeepsSharedRegions) {
    makeZonePack({"20G", "20G"});
    const uint32_t z = allocate();
    ZoneTableEntry owner;
    table().RawLookupZone(z, owner);
    // A relayout in flight: Zone 1 holds half of Zone z's Regions and some of its own.
    ZoneTableEntry one;
    table().RawLookupZone(1, one);
    one.redundancyType = uint32_t(RT::Mirrored);
    uint32_t own[24];
    IOTracker t(READ_WRITE);
    ASSERT_EQ(rm()->AllocateRegions(1, 24, own, false, t), StatusCode::Success);
    for (unsigned s = 0; s < 24; ++s) one.disk[s] = owner.disk[s], one.region[s] = owner.region[s];
    for (unsigned s = 24; s < 48; ++s) one.disk[s] = 1, one.region[s] = own[s - 24];
    {
        ExtendingLockObject::ExtendingExclusiveLockInstance lock(&table().tableLock(), t);
        ASSERT_EQ(table().UpdateZoneTableEntry(1, one, t), StatusCode::Success);
    }
    t.commit();
    ASSERT_EQ(reloadZones(), StatusCode::Success);
    ZoneTableEntry after;
    table().RawLookupZone(1, after);
    EXPECT_FALSE(after.HasRegions());
    EXPECT_EQ(table().CheckZoneValid(1), StatusCode::Success) << "Zone 1 stays in use";
    for (unsigned s = 0; s < 24; ++s) EXPECT_TRUE(isAllocated(owner.disk[s], owner.region[s])) << "shared slot " << s;
    for (unsigned s = 0; s < 24; ++s) EXPECT_FALSE(isAllocated(1, own[s])) << "Zone 1's own Region " << s;
    ZoneTableEntry still;
    ASSERT_EQ(table().LookupZone(z, still), StatusCode::Success);
    EXPECT_TRUE(still.Matches(owner));
}

TEST_F(ZoneAllocationOnDisks, ConcurrentAllocationsNeverShareANumberOrARegion) {
    makeZonePack({"20G", "20G", "20G", "20G"});
    std::vector<uint32_t> got[2];
    std::thread workers[2];
    for (int w = 0; w < 2; ++w)
        workers[w] = std::thread([&, w] {
            taskRegisterSelf(w ? "tWPThread1" : "tWPThread0", 120);
            for (int i = 0; i < 6; ++i) {
                IOTracker t(READ_WRITE);
                uint32_t zone = 0;
                if (zm()->AllocateZone(zone, t) == StatusCode::Success) got[w].push_back(zone);
                t.commit();
            }
        });
    for (auto& w : workers) w.join();
    ASSERT_EQ(got[0].size() + got[1].size(), 12u);
    std::set<uint32_t> numbers(got[0].begin(), got[0].end());
    numbers.insert(got[1].begin(), got[1].end());
    EXPECT_EQ(numbers.size(), 12u);
    std::set<std::pair<uint16_t, uint32_t>> regions;
    size_t slots = 0;
    for (uint32_t z = 0; z < table().entriesCreated(); ++z) {
        ZoneTableEntry e;
        table().RawLookupZone(z, e);
        for (unsigned s = 0; s < ZoneTableEntry::kSlots; ++s) {
            if (e.region[s] == 0) continue;
            ++slots;
            regions.insert({e.disk[s], e.region[s]});
            EXPECT_TRUE(isAllocated(e.disk[s], e.region[s]));
        }
    }
    EXPECT_EQ(regions.size(), slots) << "a Region in two slots";
    ASSERT_EQ(reloadZones(), StatusCode::Success);
    EXPECT_EQ(table().entriesInUse(), 14u);
}

// Every reachable type laid over Regions that allocation hands out: each data
// block has one place in the data columns and no two share one; each copy or
// parity block lies on its data block's row, at the same offset; copies of a
// block lie on distinct disks (SelfMirrored excepted).
TEST_F(ZoneAllocationOnDisks, PlacementOfEveryReachableTypeOverAllocatedRegions) {
    makeZonePack({"20G", "20G", "20G", "20G", "20G", "20G", "20G", "20G"});
    const uint32_t R = uint32_t(rm()->RegionSizeBytes());
    const uint32_t Z = 24 * R;
    const RT reachable[] = {RT::SelfMirrored, RT::Mirrored,  RT::HStripe3,  RT::HStripe4,  RT::HStripe5,
                            RT::HStripe7,     RT::Mirrored3, RT::DRStripe4, RT::DRStripe5, RT::DRStripe6,
                            RT::DRStripe8};
    uint32_t zoneNumber = 7;
    for (RT type : reachable) {
        SCOPED_TRACE(name(type));
        IOTracker t(READ_WRITE);
        std::vector<FreeRegions> v;
        for (uint16_t ld = 0; ld < 8; ++ld) {
            uint32_t c = 0;
            rm()->GetFreeRegionCount(ld, c, t);
            v.push_back({ld, c});
        }
        std::stable_sort(v.begin(), v.end(), FreeRegionsComparer());
        v.resize(RedundancyGeometry::ColumnCount(type));
        Region regions[ZoneManager::kMaxRegions];
        uint16_t count = 0;
        RT chosen = type;
        ASSERT_EQ(zm()->SelectRegionsWithArray(chosen, v, regions, count, t, false, false), StatusCode::Success);
        t.commit();
        ASSERT_EQ(chosen, type);
        ASSERT_EQ(count, RedundancyGeometry::GetRegionCount(type));
        ZoneTableEntry e = ZoneTableEntry::Fresh();
        e.zoneNumber = zoneNumber++;
        e.redundancyType = uint32_t(type);
        std::set<std::pair<uint16_t, uint32_t>> distinct;
        for (unsigned i = 0; i < count; ++i) {
            e.disk[i] = regions[i].ld, e.region[i] = regions[i].region;
            EXPECT_TRUE(distinct.insert({regions[i].ld, regions[i].region}).second) << "Region handed out twice";
        }
        RedundancyGeometry g(type, e.zoneNumber, R);
        ASSERT_TRUE(g.valid());
        const unsigned d = RedundancyGeometry::GetStripeDataWidth(type);
        const bool stripe = RedundancyGeometry::IsStripe(type);
        const unsigned rowSlots = stripe ? RedundancyGeometry::SlotsPerColumn(type) : 24;
        std::set<std::pair<unsigned, uint32_t>> used;
        std::set<uint16_t> dataDisks;
        for (uint32_t off = 0; off < Z; off += 0x1000) {
            unsigned slot = 0;
            ASSERT_EQ(e.CalculateDataRegion(off, slot), StatusCode::Success);
            const RegionPlace data = g.dataPlace(off);
            ASSERT_EQ(data.slot, slot);
            ASSERT_TRUE(used.insert({slot, data.offset}).second) << "two Zone blocks on one place, off " << off;
            if (stripe) {
                ASSERT_LT(g.columnOfSlot(slot), d) << "data outside the data columns";
            }
            dataDisks.insert(e.disk[slot]);
            std::set<uint16_t> disks = {e.disk[slot]};
            for (RegionCopy c : {RegionCopy::Primary, RegionCopy::Secondary}) {
                RegionPlace p;
                if (!g.place(c, off, p)) continue;
                ASSERT_EQ(p.offset, data.offset);
                ASSERT_EQ(p.slot % rowSlots, slot % rowSlots) << "copy off the data block's row, off " << off;
                if (type != RT::SelfMirrored)
                    ASSERT_TRUE(disks.insert(e.disk[p.slot]).second) << "two copies on one disk, off " << off;
                else
                    ASSERT_EQ(e.disk[p.slot], e.disk[slot]);
            }
        }
        EXPECT_EQ(used.size(), Z / 0x1000u) << "every Zone block placed";
        if (stripe) {
            EXPECT_EQ(dataDisks.size(), d) << "data spread over every data column's disk";
        }
    }
}

}  // namespace
