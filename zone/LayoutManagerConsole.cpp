// Console commands of the relayout engine (and its `state LayoutManager`): lmKick (a rebuild pass now),
// relayout ZONE, lmPriority (fix the copy priority), lmStatus (state and the
// degraded counts, "idle" once nothing is queued or running), resyncZone (a
// fast resync by hand).
#include <string>

#include "util/ConsoleCommand.h"
#include "util/ManagerRegistry.h"
#include "zone/LayoutManager.h"
#include "zone/ZoneManager.h"

namespace {

LayoutManager* lm() { return LayoutManager::GetInstance(); }

bool zoneArgument(const char* text, uint32_t& zone, std::ostream& out) {
    long long v = 0;
    if (!parseConsoleNumber(text, v) || v < 0 || v > 0xFFFFFFFFll) {
        out << "zone must be a number (decimal or 0x hex)\n";
        return false;
    }
    zone = uint32_t(v);
    return true;
}

bool packLoaded(std::ostream& out) {
    if (ZoneManager::GetInstance()->packLoaded()) return true;
    out << "no disk pack is loaded\n";
    return false;
}

int lmKick(int, char**, std::ostream& out) {
    if (!packLoaded(out)) return -1;
    lm()->InitiateBackgroundRepair();
    out << "LayoutManager repair requested\n";
    return 0;
}

int relayout(int argc, char** argv, std::ostream& out) {
    uint32_t zone = 0;
    if (argc != 2 || !zoneArgument(argv[1], zone, out)) {
        out << "Syntax: relayout <ZoneNumber>\n";
        return -1;
    }
    if (!packLoaded(out)) return -1;
    if (zone == ZoneManager::kZoneOne) {
        out << "Zone 1 is the relayout staging Zone and cannot be re-laid out\n";
        return -1;
    }
    lm()->InitiateRelayout(zone);
    out << "Relayout of Zone " << zone << " requested\n";
    return 0;
}

int lmPriority(int argc, char** argv, std::ostream& out) {
    if (argc == 1) {
        const unsigned p = lm()->priorityOverride();
        if (p == 0) out << "LM priority override off\n";
        else out << "LM priority override in operation - priority fixed at " << p << "\n";
        return 0;
    }
    long long v = 0;
    if (argc != 2 || !parseConsoleNumber(argv[1], v) || v < 0 || v > LayoutManager::kMaxPriority) {
        out << "usage: lmPriority [0-4]   (0 lets each move choose; 1 slowest, 4 fastest)\n";
        return -1;
    }
    lm()->setPriorityOverride(unsigned(v));
    if (v == 0) out << "LM priority override off\n";
    else out << "LM priority override in operation - priority fixed at " << v << "\n";
    return 0;
}

int lmStatus(int, char**, std::ostream& out) {
    lm()->Dump(out);
    if (ZoneManager::GetInstance()->packLoaded()) {
        ZoneManager* zm = ZoneManager::GetInstance();
        out << "degraded Zones " << zm->GetDegradedZoneCount() << ", double degraded "
            << zm->GetDoubleDegradedZoneCount() << ", self-mirrored " << zm->GetSelfMirroredZoneCount() << "\n";
    }
    out << (lm()->idle() ? "LM idle\n" : "LM busy\n");
    return 0;
}

int resyncZone(int argc, char** argv, std::ostream& out) {
    long long oldLd = 0, newLd = 0, flushTime = 0;
    uint32_t zone = 0;
    if (argc != 5 || !zoneArgument(argv[1], zone, out) || !parseConsoleNumber(argv[2], oldLd) ||
        !parseConsoleNumber(argv[3], newLd) || !parseConsoleNumber(argv[4], flushTime) || oldLd < 0 || oldLd > 23 ||
        newLd < 0 || newLd > 23 || flushTime < 0) {
        out << "usage: resyncZone ZONE OLD_LD NEW_LD FLUSHTIME   (FLUSHTIME in seconds of board time)\n";
        return -1;
    }
    if (!packLoaded(out)) return -1;
    StatusCode st = lm()->ResyncZone(zone, uint16_t(oldLd), uint16_t(newLd), uint32_t(flushTime));
    out << "resyncZone: Zone " << zone << " - " << st << "\n";
    return st.ok() ? 0 : -1;
}

struct Registration {
    Registration() {
        ManagerRegistry::add("LayoutManager", [](std::ostream& out) { LayoutManager::GetInstance()->Dump(out); });
    }
} gRegistration;

}  // namespace

ConsoleCommand gLmKick("lmKick", "Starts a LayoutManager repair and relayout pass", lmKick);
ConsoleCommand gRelayout("relayout", "Re-lays one Zone out in the background", relayout);
ConsoleCommand gLmPriority("lmPriority", "Fixes the priority (1-4) of every relayout copy; 0 ends the override",
                           lmPriority);
ConsoleCommand gLmStatus("lmStatus", "Shows the LayoutManager's state and the degraded Zone counts", lmStatus);
ConsoleCommand gResyncZone("resyncZone", "Gives a Zone back its Regions on a returning disk (fast resync)",
                           resyncZone);
