// Console tools of the Zone read and write paths. The checking tools
// (testZoneData, verifyRedundancy, writeVerifyZM, partialReadTest,
// writeReadTest) end with one summary line and return non-zero on any
// failure, so scripts can trust them.
#include <chrono>
#include <cstdio>
#include <iomanip>
#include <random>
#include <string>
#include <vector>

#include "platform/rtos/BoardClock.h"
#include "disk/DiskManager.h"
#include "region/RegionManager.h"
#include "util/ConsoleCommand.h"
#include "zone/LayoutManager.h"
#include "zone/ZoneManager.h"
#include "zone/ZoneTable.h"
#include "zone/ZoneWriteReadCheck.h"

namespace {

bool number(const char* text, uint64_t& value, std::ostream& out, const char* what) {
    long long v = 0;
    if (!parseConsoleNumber(text, v) || v < 0) {
        out << what << " must be a number (decimal or 0x hex)\n";
        return false;
    }
    value = uint64_t(v);
    return true;
}

bool packReady(std::ostream& out) {
    auto* info = SystemDrivePackInfo::GetInstance();
    if (info->isSet(SystemDrivePackInfo::RegionSize) && info->isSet(SystemDrivePackInfo::ZoneSize)) return true;
    out << "no disk pack is loaded\n";
    return false;
}

uint64_t zoneSize() { return SystemDrivePackInfo::GetInstance()->GetZoneSize(); }

// zone, offset and length arguments, checked against the Zone's size; lengths in whole sectors.
bool rangeArguments(int argc, char** argv, int first, uint32_t& zone, uint32_t& offset, uint32_t& length,
                    uint32_t defaultLength, std::ostream& out) {
    uint64_t z = 0, o = 0, l = defaultLength;
    if (argc <= first + 1 || !number(argv[first], z, out, "zone") || !number(argv[first + 1], o, out, "offset"))
        return false;
    if (argc > first + 2 && !number(argv[first + 2], l, out, "length")) return false;
    if (o % 512 || l % 512 || l == 0) {
        out << "offset and length must be whole sectors (multiples of 512)\n";
        return false;
    }
    if (o + l > zoneSize()) {
        out << "the range passes the end of the Zone (size 0x" << std::hex << zoneSize() << std::dec << ")\n";
        return false;
    }
    zone = uint32_t(z), offset = uint32_t(o), length = uint32_t(l);
    return true;
}

void hexDump(std::ostream& out, const DataWindow& window, uint32_t base, uint32_t limit) {
    std::vector<uint8_t> bytes(std::min(window.GetLength(), limit));
    DataWindow head(window, 0, uint32_t(bytes.size()));
    DataBuffer b{uint32_t(bytes.size()), bytes.data()};
    head.Read(b);
    char text[8];
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i % 16 == 0) out << std::hex << std::setw(8) << std::setfill('0') << base + i << std::dec << ":";
        std::snprintf(text, sizeof text, " %02x", bytes[i]);
        out << text;
        if (i % 16 == 15 || i + 1 == bytes.size()) out << "\n";
    }
    out << std::setfill(' ');
}

int zmReadData(int argc, char** argv, std::ostream& out) {
    uint32_t zone, offset, length;
    if (!packReady(out)) return -1;
    if (!rangeArguments(argc, argv, 1, zone, offset, length, 512, out)) {
        out << "usage: ZMReadData ZONE OFFSET [LENGTH] [original|reconstructed]\n";
        return -1;
    }
    const bool original = argc <= 4 || std::string(argv[4]) != "reconstructed";
    DataWindow window(length, 0, length);
    IOTracker tracker(READ_ONLY);
    StatusCode st = ZoneManager::GetInstance()->ReadDataDirect(zone, offset, window, tracker, original);
    tracker.commitIfDirty();
    out << "ZMReadData: Zone " << zone << " offset 0x" << std::hex << offset << " length 0x" << length << std::dec
        << " (" << (original ? "original" : "reconstructed") << "): " << st << "\n";
    if (st.ok()) hexDump(out, window, offset, 4096);
    return st.ok() ? 0 : -1;
}

int zmdump(int argc, char** argv, std::ostream& out) {
    ZoneManager::GetInstance()->DumpIO(out);
    ZoneManager::GetInstance()->PerfInfoIO(out);
    LayoutManager::GetInstance()->Dump(out);
    uint64_t zone = 0;
    if (argc > 1) {
        if (!number(argv[1], zone, out, "zone")) return -1;
        ZoneTableEntry entry;
        StatusCode st = ZoneTable::GetInstance()->RawLookupZone(uint32_t(zone), entry);
        if (!st.ok()) {
            out << "Zone " << zone << ": " << st << "\n";
            return -1;
        }
        ZoneTable::GetInstance()->DumpEntry(out, entry);
        out << "last written " << entry.lastWrittenTimestamp << "\n";
    }
    return 0;
}

int writeVerifyZM(int argc, char** argv, std::ostream& out) {
    uint32_t zone, offset, length;
    if (!packReady(out)) return -1;
    if (!rangeArguments(argc, argv, 1, zone, offset, length, 0x10000, out)) {
        out << "usage: writeVerifyZM ZONE OFFSET [LENGTH] [SEED] [verify]   (overwrites that stretch of the Zone;\n"
               "       with 'verify' it only reads the stretch back, as a host read would, and checks the SEED's pattern)\n";
        return -1;
    }
    uint64_t seed = uint64_t(BoardClock::GetInstance().nanoseconds());
    if (argc > 4 && !number(argv[4], seed, out, "seed")) return -1;
    if (argc > 5 && std::string(argv[5]) == "verify") {
        // A pattern written before a restart or a pull: read through the
        // normal path, which rebuilds what a missing disk held.
        DataWindow window(length, 0, length);
        IOTracker tracker(READ_ONLY);
        StatusCode st = ZoneManager::GetInstance()->ReadData(zone, offset, window, tracker);
        tracker.commitIfDirty();
        const bool good = st.ok() && ZoneDataCheck::matches(window, uint32_t(seed), offset, &out);
        out << "writeVerifyZM: Zone " << zone << " verify " << (good ? "passed" : "FAILED")
            << (st.ok() ? "" : " (" + st.Dump() + ")") << "\n";
        return good ? 0 : -1;
    }
    ZoneDataCheck::Result result;
    const std::vector<ZoneDataCheck::Extent> extent{{offset, length}};
    ZoneDataCheck::writeExtents(zone, uint32_t(seed), extent, result, &out);
    // Success acknowledges the write, as a host's write is acknowledged: the
    // data must survive a power cut from then on. The Zone write leaves it in
    // the drives' write caches, which may hold it back, or put any part of it
    // on the media, until a flush; so the drives are flushed first.
    if (DiskManager::GetInstance()->FlushAllDrives() != StatusCode::Success) ++result.errors;
    // Read back both ways: the data copy, and the data rebuilt from its redundancy alone.
    unsigned bad = result.errors;
    for (bool original : {true, false}) {
        DataWindow window(length, 0, length);
        IOTracker tracker(READ_ONLY);
        StatusCode st = ZoneManager::GetInstance()->ReadDataDirect(zone, offset, window, tracker, original);
        tracker.commitIfDirty();
        const bool good = st.ok() && ZoneDataCheck::matches(window, uint32_t(seed), offset, &out);
        out << "writeVerifyZM: " << (original ? "original" : "reconstructed") << " read " << (good ? "good" : "BAD")
            << (st.ok() ? "" : " (" + st.Dump() + ")") << "\n";
        if (!good) ++bad;
    }
    out << "writeVerifyZM: Zone " << zone << " " << (bad ? "FAILED" : "passed") << "\n";
    return bad ? -1 : 0;
}

int dumpRawZone(int argc, char** argv, std::ostream& out) {
    uint32_t zone, offset, length;
    if (!packReady(out)) return -1;
    if (!rangeArguments(argc, argv, 1, zone, offset, length, 512, out)) {
        out << "usage: dumpRawZone ZONE OFFSET [LENGTH]   (each copy as it lies in its Region)\n";
        return -1;
    }
    ZoneTableEntry entry;
    StatusCode st = ZoneTable::GetInstance()->LookupZone(zone, entry);
    if (!st.ok()) {
        out << "Zone " << zone << ": " << st << "\n";
        return -1;
    }
    const RedundancyGeometry geometry = entry.geometry();
    const char* names[] = {"data", "primary redundancy", "secondary redundancy"};
    // A stretch inside one stripe block (mirrors: one Region) lies in one place per copy.
    const uint32_t room = RedundancyGeometry::IsStripe(entry.type()) ? 0x1000 - offset % 0x1000
                                                                      : geometry.GetRegionBoundary() -
                                                                            offset % geometry.GetRegionBoundary();
    length = std::min(length, room);
    for (unsigned copy = 0; copy < 3; ++copy) {
        RegionPlace place{};
        if (!geometry.place(RegionCopy(copy), offset, place)) continue;
        out << names[copy] << ": slot " << place.slot << " LD " << entry.disk[place.slot] << " Region "
            << entry.region[place.slot] << " offset 0x" << std::hex << place.offset << std::dec << "\n";
        if (entry.region[place.slot] == 0) {
            out << "  (no Region)\n";
            continue;
        }
        DataWindow window(length, 0, length);
        IOTracker tracker(READ_ONLY);
        st = RegionManager::GetInstance()->ReadData(entry.disk[place.slot], entry.region[place.slot], place.offset,
                                                    window, tracker);
        tracker.commitIfDirty();
        if (!st.ok()) out << "  read failed: " << st << "\n";
        else hexDump(out, window, place.offset, 4096);
    }
    return 0;
}

// The Zones a check walks: one, or every Zone in use but Zone 1.
std::vector<uint32_t> zonesToCheck(int argc, char** argv, std::ostream& out, bool& ok) {
    std::vector<uint32_t> zones;
    ok = true;
    if (argc > 1) {
        uint64_t z = 0;
        ok = number(argv[1], z, out, "zone");
        if (ok) zones.push_back(uint32_t(z));
        return zones;
    }
    const uint32_t count = ZoneTable::GetInstance()->entriesCreated();
    for (uint32_t z = 0; z < count; ++z)
        if (z != 1 && ZoneTable::GetInstance()->CheckZoneValid(z).ok()) zones.push_back(z);
    return zones;
}

int verifyRedundancy(int argc, char** argv, std::ostream& out) {
    if (!packReady(out)) return -1;
    bool ok = false;
    const std::vector<uint32_t> zones = zonesToCheck(argc, argv, out, ok);
    if (!ok) {
        out << "usage: verifyRedundancy [ZONE]\n";
        return -1;
    }
    ZoneManager* zm = ZoneManager::GetInstance();
    zm->setVerifyReport(&out);
    uint32_t mismatches = 0, failures = 0;
    for (uint32_t zone : zones) {
        uint32_t z = zone;
        IOTracker tracker(READ_ONLY);
        StatusCode st = zm->VerifyRedundancy(z, tracker);
        tracker.commitIfDirty();
        mismatches += zm->lastVerifyDifferences();
        if (!st.ok()) {
            ++failures;
            if (zm->lastVerifyDifferences() == 0) out << "verifyRedundancy: Zone " << zone << ": " << st << "\n";
        }
    }
    zm->setVerifyReport(nullptr);
    out << "verifyRedundancy: " << zones.size() << " zones checked, " << mismatches << " mismatches\n";
    return mismatches || failures ? 1 : 0;
}

int scrubZone(int argc, char** argv, std::ostream& out) {
    if (!packReady(out)) return -1;
    uint64_t zone = 0;
    if (argc != 2 || !number(argv[1], zone, out, "zone")) {
        out << "usage: scrubZone ZONE   (reads every copy; unreadable Regions are handed to the layout manager)\n";
        return -1;
    }
    const uint64_t patchesBefore = LayoutManager::GetInstance()->patchRequestCount();
    ZoneManager* zm = ZoneManager::GetInstance();
    zm->setVerifyReport(&out);
    uint32_t z = uint32_t(zone);
    IOTracker tracker(READ_ONLY);
    StatusCode st = zm->VerifyRedundancy(z, tracker);
    tracker.commitIfDirty();
    zm->setVerifyReport(nullptr);
    out << "scrubZone: Zone " << zone << ": " << zm->lastVerifyDifferences() << " mismatches, "
        << LayoutManager::GetInstance()->patchRequestCount() - patchesBefore << " patches requested (" << st << ")\n";
    return st.ok() ? 0 : 1;
}

int testZoneData(int argc, char** argv, std::ostream& out) {
    if (!packReady(out)) return -1;
    bool dual = false;
    uint64_t seed = uint64_t(BoardClock::GetInstance().nanoseconds()) | 1;
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "-dual") dual = true;
        else if (!number(argv[i], seed, out, "seed")) {
            out << "usage: testZoneData [-dual] [SEED]\n";
            return -1;
        }
    }
    const std::vector<uint16_t> disks = ZoneDataCheck::presentDisks();
    unsigned passed = 0, failed = 0;
    for (RedundancyType type : kRedundancyTypes) {
        if (RedundancyGeometry::ColumnCount(type) > disks.size()) continue;
        if (RedundancyGeometry::DualRedundancy(type) && !dual) continue;
        const std::string name = RedundancyGeometry::DecodeRedundancyType(uint32_t(type));
        if (!RedundancyGeometry(type, 0, uint32_t(SystemDrivePackInfo::GetInstance()->GetRegionSize())).valid()) {
            out << "testZoneData: " << name << " skipped: the Region size does not suit it\n";
            continue;
        }
        uint32_t zone = 0;
        StatusCode st = ZoneDataCheck::makeScratchZone(type, disks, zone);
        if (!st.ok()) {
            out << "testZoneData: " << name << " FAILED: no Zone could be made (" << st << ")\n";
            ++failed;
            continue;
        }
        ZoneDataCheck::Result r = ZoneDataCheck::run(zone, uint32_t(seed) + uint32_t(type), 24, 0x40000, &out);
        st = ZoneDataCheck::freeScratchZone(zone);
        const bool good = r.errors == 0 && r.mismatches == 0 && st.ok();
        out << "testZoneData: " << name << " Zone " << zone << " " << (good ? "passed" : "FAILED") << ": "
            << r.writes << " writes, " << r.reads << " reads, " << r.combinations << " columns missing tried, "
            << r.mismatches << " mismatches, " << r.errors << " errors\n";
        (good ? passed : failed)++;
    }
    out << "testZoneData: " << passed << " types passed, " << failed << " failed\n";
    return failed ? 1 : 0;
}

int writeReadTest(int argc, char** argv, std::ostream& out) {
    if (!packReady(out)) return -1;
    uint64_t zone = 0, count = 32, seed = uint64_t(BoardClock::GetInstance().nanoseconds()) | 1;
    if (argc < 2 || !number(argv[1], zone, out, "zone") || (argc > 2 && !number(argv[2], count, out, "count")) ||
        (argc > 3 && !number(argv[3], seed, out, "seed"))) {
        out << "usage: writeReadTest ZONE [COUNT] [SEED]   (overwrites random stretches of the Zone)\n";
        return -1;
    }
    ZoneDataCheck::Result r;
    const auto extents = ZoneDataCheck::randomExtents(uint32_t(seed), unsigned(count), 0x40000, zoneSize());
    ZoneDataCheck::writeExtents(uint32_t(zone), uint32_t(seed), extents, r, &out);
    ZoneDataCheck::readExtents(uint32_t(zone), uint32_t(seed), extents, r, &out);
    const bool good = r.errors == 0 && r.mismatches == 0;
    out << "writeReadTest: Zone " << zone << " " << (good ? "passed" : "FAILED") << ": " << r.writes << " writes, "
        << r.reads << " reads, " << r.mismatches << " mismatches, " << r.errors << " errors\n";
    return good ? 0 : 1;
}

int partialReadTest(int argc, char** argv, std::ostream& out) {
    if (!packReady(out)) return -1;
    uint32_t zone, offset, length;
    if (!rangeArguments(argc, argv, 1, zone, offset, length, 0x40000, out)) {
        out << "usage: partialReadTest ZONE OFFSET [LENGTH]   (writes the stretch, then reads many parts of it)\n";
        return -1;
    }
    const uint32_t seed = uint32_t(BoardClock::GetInstance().nanoseconds()) | 1;
    ZoneDataCheck::Result r;
    ZoneDataCheck::writeExtents(zone, seed, {{offset, length}}, r, &out);
    std::mt19937 rng(seed);
    std::vector<ZoneDataCheck::Extent> parts;
    const uint32_t sectors = length / 512;
    for (int i = 0; i < 64; ++i) {
        const uint32_t start = rng() % sectors, n = 1 + rng() % (sectors - start);
        parts.push_back({offset + start * 512, n * 512});
    }
    ZoneDataCheck::readExtents(zone, seed, parts, r, &out);
    const bool good = r.errors == 0 && r.mismatches == 0;
    out << "partialReadTest: Zone " << zone << " " << (good ? "passed" : "FAILED") << ": " << r.reads
        << " partial reads, " << r.mismatches << " mismatches, " << r.errors << " errors\n";
    return good ? 0 : 1;
}

int zmPerf(int argc, char** argv, std::ostream& out) {
    if (!packReady(out)) return -1;
    uint64_t zone = 0, chunk = 0x100000;
    if (argc < 2 || !number(argv[1], zone, out, "zone") || (argc > 2 && !number(argv[2], chunk, out, "chunk"))) {
        out << "usage: ZMPerf ZONE [CHUNK]   (writes and reads the whole Zone sequentially; overwrites it)\n";
        return -1;
    }
    if (chunk == 0 || chunk % 512 || chunk > zoneSize()) {
        out << "chunk must be whole sectors, at most the Zone size\n";
        return -1;
    }
    ZoneManager* zm = ZoneManager::GetInstance();
    DataWindow window(uint32_t(chunk), 0, uint32_t(chunk));
    ZoneDataCheck::fill(window, 7, 0);
    for (bool write : {true, false}) {
        const auto start = std::chrono::steady_clock::now();
        uint64_t bytes = 0;
        for (uint64_t off = 0; off + chunk <= zoneSize(); off += chunk) {
            IOTracker tracker(write ? READ_WRITE : READ_ONLY);
            StatusCode st = write ? zm->WriteData(uint32_t(zone), off, window, tracker)
                                  : zm->ReadData(uint32_t(zone), off, window, tracker);
            tracker.commitIfDirty();
            if (!st.ok()) {
                out << "ZMPerf: " << (write ? "write" : "read") << " at 0x" << std::hex << off << std::dec
                    << " failed: " << st << "\n";
                return -1;
            }
            bytes += chunk;
        }
        const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        out << "ZMPerf: Zone " << zone << " sequential " << (write ? "write" : "read") << " " << bytes / 1048576.0
            << " MiB in " << s << " s: " << (s > 0 ? bytes / 1048576.0 / s : 0) << " MiB/s\n";
    }
    return 0;
}

int toggleCoop(int, char**, std::ostream& out) {
    ZoneManager* zm = ZoneManager::GetInstance();
    zm->setCoopEnabled(!zm->coopEnabled());
    out << "Write thread cooperation is now " << (zm->coopEnabled() ? "enabled" : "disabled") << "\n";
    return 0;
}

ConsoleCommand cZMReadData("ZMReadData", "Reads Zone data from the original only or the reconstruction only",
                           zmReadData);
ConsoleCommand cZmdump("zmdump", "Dumps the Zone I/O state (parallel IOs, write threads, patches) and a Zone's entry",
                       zmdump);
ConsoleCommand cWriteVerifyZM("writeVerifyZM", "Writes a pattern into a Zone and reads it back both ways",
                              writeVerifyZM);
ConsoleCommand cDumpRawZone("dumpRawZone", "Shows each copy of a stretch of a Zone as it lies in its Region",
                            dumpRawZone);
ConsoleCommand cVerifyRedundancy("verifyRedundancy", "Checks mirrors and parity of every in-use Zone, or of one",
                                 verifyRedundancy);
ConsoleCommand cScrubZone("scrubZone", "Reads every copy of a Zone and hands unreadable Regions to repair",
                          scrubZone);
ConsoleCommand cTestZoneData("testZoneData",
                             "Makes a Zone of every type the disks allow, writes, reads back with columns missing",
                             testZoneData);
ConsoleCommand cWriteReadTest("writeReadTest", "Writes random stretches of a Zone and reads them back",
                              writeReadTest);
ConsoleCommand cPartialReadTest("partialReadTest", "Writes a stretch of a Zone and reads many parts of it",
                                partialReadTest);
ConsoleCommand cZMPerf("ZMPerf", "Measures sequential Zone write and read rates", zmPerf);
ConsoleCommand cToggleCoop("toggleCoop", "Switches write thread cooperation on or off", toggleCoop);

}  // namespace
