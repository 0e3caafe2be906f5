// Console commands and dumps of the Zone table, Zone allocation and Zone 0.
#include <cstring>
#include <string>
#include <vector>

#include "util/ConsoleCommand.h"
#include "util/Diagnostics.h"
#include "util/ManagerRegistry.h"
#include "zone/Zone0InfoTable.h"
#include "zone/ZoneManager.h"

namespace {

ZoneTable& table() { return *ZoneTable::GetInstance(); }

bool number(const char* text, long long& v) { return parseConsoleNumber(text, v) && v >= 0; }

int dumpZoneTableEntry(int argc, char** argv, std::ostream& out) {
    long long first = 0, last = 0;
    if (argc < 2 || argc > 3 || !number(argv[1], first) || (argc == 3 && !number(argv[2], last))) {
        out << "Syntax is: dumpZoneTableEntry <first Zone> [last Zone]\n";
        return -1;
    }
    if (argc == 2) last = first;
    if (last < first) std::swap(first, last);
    const uint32_t created = table().entriesCreated();
    if (uint64_t(first) >= created) {
        out << "Zone " << first << " is past the end of the table (" << created << " entries)\n";
        return -1;
    }
    for (uint64_t z = uint64_t(first); z <= uint64_t(last) && z < created; ++z) {
        ZoneTableEntry e;
        if (table().RawLookupZone(uint32_t(z), e) == StatusCode::Success) table().DumpEntry(out, e);
    }
    return 0;
}

int findZIS(int, char**, std::ostream& out) {
    table().FindZIS(out);
    return 0;
}

// Overwrites the primary copy's ZIS header with zeros, as a failing disk
// would, so that the next load or check finds it bad and rebuilds it.
int corruptZIS(int, char**, std::ostream& out) {
    uint16_t ld = 0;
    uint32_t region = 0;
    if (!table().copyLocation(0, ld, region)) {
        out << "No Zone table is loaded\n";
        return -1;
    }
    IOTracker tracker(READ_WRITE);
    uint8_t zeros[512] = {};
    StatusCode st = ZoneTable::RegionMetaData(ld, region, 0, zeros, sizeof zeros, true, true, tracker);
    StatusCode c = tracker.commit();
    if (st == StatusCode::Success) st = c;
    out << "Primary ZIS on LD " << ld << " Region " << region << (st == StatusCode::Success ? " corrupted" : " not corrupted: ")
        << (st == StatusCode::Success ? "" : st.Dump()) << "\n";
    return st == StatusCode::Success ? 0 : -1;
}

bool onOff(const char* text, bool& on) {
    if (!std::strcmp(text, "on") || !std::strcmp(text, "1")) return on = true, true;
    if (!std::strcmp(text, "off") || !std::strcmp(text, "0")) return on = false, true;
    return false;
}

int dualRedundancy(int argc, char** argv, std::ostream& out) {
    bool on = false;
    if (argc == 2 && !onOff(argv[1], on)) {
        out << "Syntax is: dualRedundancy [on|off]\n";
        return -1;
    }
    if (argc == 2) {
        StatusCode st = table().SetDualRedundancyMode(on);
        if (st != StatusCode::Success) {
            out << "Unable to change the use of dual-redundant Zones: " << st << "\n";
            return -1;
        }
    }
    out << "Use of dual-redundant Zones is " << (table().DualRedundancyMode() ? "enabled" : "disabled")
        << (ZoneManager::GetInstance()->packLoaded() && ZoneManager::GetInstance()->DualRedundancyEnabled()
                ? " and in force"
                : "")
        << "\n";
    return 0;
}

int useSelfMirrored(int argc, char** argv, std::ostream& out) {
    if (argc == 2 && std::strcmp(argv[1], "on") != 0) {
        out << "Syntax is: useSelfMirrored [on] (the switch cannot be turned off)\n";
        return -1;
    }
    if (argc == 2) {
        StatusCode st = table().SetUseSelfmirrored(true);
        if (st != StatusCode::Success) {
            out << "Unable to allow self-mirrored Zones: " << st << "\n";
            return -1;
        }
    }
    out << "Use of self-mirrored Zones is " << (table().UseSelfMirrored() ? "enabled" : "disabled") << "\n";
    return 0;
}

int setStripeThreshold(int argc, char** argv, std::ostream& out) {
    long long v = 0;
    if (argc != 2 || !number(argv[1], v) || v > 100) {
        out << "Syntax is: setStripeThreshold <percent, 0 to 100>\n";
        return -1;
    }
    ZoneManager::GetInstance()->SetStripingThreshold(unsigned(v));
    out << "StripingThreshold set to " << v << "%\n";
    return 0;
}

int alloczones(int argc, char** argv, std::ostream& out) {
    long long n = 0;
    if (argc != 2 || !number(argv[1], n)) {
        out << "Syntax is: alloczones <count>\n";
        return -1;
    }
    for (long long i = 0; i < n; ++i) {
        IOTracker tracker(READ_WRITE);
        uint32_t zone = 0;
        StatusCode st = ZoneManager::GetInstance()->AllocateZone(zone, tracker);
        tracker.commitIfDirty();
        if (st != StatusCode::Success) {
            out << "Allocated " << i << " Zones, then: " << st << "\n";
            return -1;
        }
        out << "Allocated Zone " << zone << "\n";
    }
    return 0;
}

int deallocateZone(int argc, char** argv, std::ostream& out) {
    long long z = 0;
    if (argc != 2 || !number(argv[1], z) || z > 0xFFFFFFFFll) {
        out << "Syntax is: deallocateZone <Zone>\n";
        return -1;
    }
    IOTracker tracker(READ_WRITE);
    StatusCode st = ZoneManager::GetInstance()->DeallocateZone(uint32_t(z), tracker);
    tracker.commitIfDirty();
    out << "Deallocation of Zone " << z << ": " << st << "\n";
    return st == StatusCode::Success ? 0 : -1;
}

void zone0Diags(std::ostream& out) {
    out << "These are the diags for the Zone0InfoTable\n";
    Zone0InfoTable::GetInstance()->Dump(out);
}

struct Registration {
    Registration() {
        ManagerRegistry::add("ZoneManager", [](std::ostream& out) { ZoneManager::GetInstance()->Dump(out); });
        ManagerRegistry::add("ZoneTable", [](std::ostream& out) { ZoneTable::GetInstance()->Dump(out); });
        ManagerRegistry::add("Zone0InfoTable", [](std::ostream& out) { Zone0InfoTable::GetInstance()->Dump(out); });
    }
} gRegistration;

DiagnosticHandler gZ0itDiagnostics(zone0Diags, "Z0IT", 50);

ConsoleCommand cDumpZoneTableEntry("dumpZoneTableEntry", "Dumps the ZoneTableEntry for just the specified Zone range",
                                   dumpZoneTableEntry);
ConsoleCommand cFindZIS("findZIS", "Scans all available disks looking for copies of the ZIS", findZIS);
ConsoleCommand cCorruptZIS("corruptZIS", "Deliberately corrupts the Primary ZoneTable.", corruptZIS);
ConsoleCommand cDualRedundancy("dualRedundancy", "Get or Set the ZM support for dual redundant Zones", dualRedundancy);
ConsoleCommand cUseSelfMirrored("useSelfMirrored", "useSelfMirrored [on]", useSelfMirrored);
ConsoleCommand cSetStripeThreshold("setStripeThreshold", "Command to set the striping threshold", setStripeThreshold);
ConsoleCommand cAlloczones("alloczones", "Allocate the specified number of Zones to pad out the system.", alloczones);
ConsoleCommand cDeallocateZone("deallocateZone",
                               "Forcibly deallocates a Zone - CAUTION: can make the array unusable!", deallocateZone);

}  // namespace
