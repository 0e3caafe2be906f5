// esactl: the host's management client for the ESA. It speaks the management
// protocol (vendor MODE SENSE(10) and MODE SELECT(10) pages, command 0xEA)
// over the same iSCSI portal as the LUNs, so it needs no second channel.
//
//   esactl [--portal ADDR] [--json] COMMAND ...
//     status | slots | capacity | luns | events | lights
//     set KEY VALUE          low-threshold P, high-threshold P, unprotected-space on,
//                            dual-redundancy on|off, spindown MINUTES, manual-volumes on|off,
//                            auto-lun on|off, name TEXT, time now
//     create-lun SIZE        e.g. 100G (appears at the next restart of the appliance)
//     delete-lun N
//     identify               the lights show the identify pattern for 10 seconds
//     serve [--listen 127.0.0.1:8080]
//
// Exit status: 0 done; 1 bad arguments; 2 the appliance cannot be reached;
// 3 the appliance refused the command; 4 the answer was malformed.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <string>
#include <vector>

#include "tools/esactl/MgmtClient.h"
#include "tools/esactl/MgmtRecords.h"
#include "tools/esactl/StatusPage.h"

using namespace esactl;

namespace {
enum Exit { kOk = 0, kUsage = 1, kUnreachable = 2, kRefused = 3, kMalformed = 4 };

int usage() {
    std::fprintf(stderr,
                 "usage: esactl [--portal ADDR] [--json] COMMAND\n"
                 "  status | slots | capacity | luns | events | lights\n"
                 "  set KEY VALUE   (low-threshold, high-threshold, unprotected-space, dual-redundancy,\n"
                 "                   spindown, manual-volumes, auto-lun, name, time)\n"
                 "  create-lun SIZE | delete-lun N | identify | serve [--listen HOST:PORT]\n");
    return kUsage;
}

int fail(int code, const std::string& what) {
    std::fprintf(stderr, "esactl: %s\n", what.c_str());
    return code;
}

int refusal(const MgmtResult& r, const std::string& what) {
    if (!r.reached) return fail(kUnreachable, what + ": " + r.error);
    return fail(kRefused, what + ": " + r.error);
}

bool parseSize(const std::string& s, uint64_t& bytes) {
    char* end = nullptr;
    double v = std::strtod(s.c_str(), &end);
    if (end == s.c_str() || v <= 0) return false;
    std::string unit(end);
    uint64_t m = 1;
    if (unit == "K" || unit == "KiB" || unit == "k") m = 1ull << 10;
    else if (unit == "M" || unit == "MiB") m = 1ull << 20;
    else if (unit == "G" || unit == "GiB") m = 1ull << 30;
    else if (unit == "T" || unit == "TiB") m = 1ull << 40;
    else if (!unit.empty() && unit != "B") return false;
    bytes = uint64_t(v * double(m));
    return true;
}

bool parseOnOff(const std::string& s, bool& on) {
    if (s == "on" || s == "1" || s == "true") return on = true, true;
    if (s == "off" || s == "0" || s == "false") return on = false, true;
    return false;
}

void printStatus(const Snapshot& s) {
    std::printf("Name:            %s\n", s.name.c_str());
    std::printf("Pack:            %s\n", s.packLoaded ? "loaded" : ("not loaded (reason " + std::to_string(s.notLoadedReason) + ")").c_str());
    std::printf("Firmware:        %s (protocol %d.%d)\n", s.firmware.c_str(), s.protocolMajor, s.protocolMinor);
    std::printf("Relayout:        %s\n", (s.statusBits & 0x200) ? ("running, " + std::to_string(s.zonesInDanger) + " Zones in danger").c_str() : "idle");
    std::printf("Capacity:        %s used of %s (%d%%)\n", bytesText(s.usedBytes).c_str(), bytesText(s.totalBytes).c_str(), meterPercent(s));
    std::printf("LUNs:            %d\n", s.lunCount);
    std::string flags;
    for (const std::string& f : statusFlagNames(s.statusBits)) flags += (flags.empty() ? "" : ", ") + f;
    std::printf("Flags:           %s\n", flags.empty() ? "none" : flags.c_str());
}

void printSlots(const Snapshot& s) {
    std::printf("%-5s %-11s %-12s %-19s %s\n", "SLOT", "STATE", "SIZE", "LIGHT", "MODEL");
    for (const Snapshot::Slot& slot : s.slots)
        std::printf("%-5d %-11s %-12s %-19s %s\n", slot.slot, slotState(slot).c_str(),
                    slot.sizeBytes ? bytesText(slot.sizeBytes).c_str() : "-", colourName(slot.colour).c_str(),
                    slot.model.c_str());
}

void printCapacity(const Snapshot& s) {
    std::printf("Total:       %s (%llu bytes)\n", bytesText(s.totalBytes).c_str(), (unsigned long long)s.totalBytes);
    std::printf("Used:        %s (%llu bytes)\n", bytesText(s.usedBytes).c_str(), (unsigned long long)s.usedBytes);
    std::printf("Free:        %s (%llu bytes)\n", bytesText(s.freeBytes).c_str(), (unsigned long long)s.freeBytes);
    std::printf("Raw used:    %s\n", bytesText(rawUsedBytes(s)).c_str());
    std::printf("Unprotected: %s\n", bytesText(s.unprotectedBytes).c_str());
    std::string bar;
    const int m = meterPercent(s);
    for (int i = 0; i < 10; ++i) bar += m > i * 10 ? '#' : '.';
    std::printf("Meter:       [%s] %d%% (yellow at %.2f%%, red at %.2f%%)\n", bar.c_str(), m, s.lowThreshold / 100.0,
                s.highThreshold / 100.0);
}

void printLuns(const Snapshot& s) {
    std::printf("%-4s %-12s %s\n", "LUN", "SIZE", "USED");
    for (const Snapshot::Lun& l : s.luns) {
        int64_t used = lunUsedBytes(s, l);
        std::printf("%-4d %-12s %s\n", l.lun, bytesText(l.sizeBytes).c_str(),
                    used < 0 ? "(shared pack figure)" : bytesText(uint64_t(used)).c_str());
    }
}

void printLights(const Snapshot& s) {
    for (const Snapshot::Slot& slot : s.slots) std::printf("slot %d: %s\n", slot.slot, colourName(slot.colour).c_str());
    std::printf("capacity meter: %d%%\n", meterPercent(s));
}

int runSet(MgmtClient& c, const std::string& key, const std::string& value, bool json) {
    auto done = [&](const MgmtResult& r) {
        if (!r.ok) return refusal(r, "set " + key);
        if (json) std::cout << nlohmann::json{{"set", key}, {"value", value}}.dump() << "\n";
        else std::printf("%s set to %s\n", key.c_str(), value.c_str());
        return int(kOk);
    };
    if (key == "low-threshold" || key == "high-threshold") {
        char* end = nullptr;
        double p = std::strtod(value.c_str(), &end);
        const bool low = key == "low-threshold";
        if (*end || p < 1 || p > (low ? 99.99 : 100)) return fail(kUsage, key + " takes a percentage from 1 to " + (low ? "99.99" : "100"));
        const int hundredths = int(p * 100 + 0.5);
        std::vector<uint8_t> rec(13, 0);
        rec[0] = 0x7A;
        rec[1] = 0x30;
        rec[2] = 0x09;
        rec[low ? 4 : 5] = uint8_t(hundredths / 100);
        rec[low ? 11 : 12] = uint8_t(hundredths % 100);
        return done(c.modeSelect(0x30, rec));
    }
    if (key == "unprotected-space") {
        bool on = false;
        if (!parseOnOff(value, on)) return fail(kUsage, "unprotected-space takes on");
        if (!on) return fail(kUsage, "the use of unprotected space cannot be turned off once on");
        std::vector<uint8_t> rec(13, 0);
        rec[0] = 0x7A, rec[1] = 0x30, rec[2] = 0x09, rec[6] = 0x40;
        return done(c.modeSelect(0x30, rec));
    }
    if (key == "dual-redundancy" || key == "spindown" || key == "manual-volumes") {
        MgmtResult cur = c.modeSense(0x31);
        if (!cur.ok) return refusal(cur, "read options");
        if (cur.data.size() < 22) return fail(kMalformed, "options page: short answer");
        if (cur.data[0] != 0x7A) return fail(kRefused, "set " + key + ": no disk pack is loaded");
        std::vector<uint8_t> rec(cur.data.begin(), cur.data.begin() + 512 > cur.data.end() ? cur.data.end() : cur.data.begin() + 512);
        rec.resize(512, 0);
        uint32_t flags = uint32_t(rec[8]) << 24 | uint32_t(rec[9]) << 16 | uint32_t(rec[10]) << 8 | rec[11];
        if (key == "spindown") {
            char* end = nullptr;
            long minutes = std::strtol(value.c_str(), &end, 10);
            if (*end || minutes < 0 || minutes > 0xFFFF) return fail(kUsage, "spindown takes minutes, 0 for never");
            flags = minutes ? flags | 2 : flags & ~2u;
            rec[12] = uint8_t(minutes >> 8);
            rec[13] = uint8_t(minutes);
        } else {
            bool on = false;
            if (!parseOnOff(value, on)) return fail(kUsage, key + " takes on or off");
            const uint32_t bit = key == "dual-redundancy" ? 1 : 4;
            flags = on ? flags | bit : flags & ~bit;
        }
        rec[8] = uint8_t(flags >> 24), rec[9] = uint8_t(flags >> 16), rec[10] = uint8_t(flags >> 8), rec[11] = uint8_t(flags);
        return done(c.modeSelect(0x31, rec));
    }
    if (key == "auto-lun") {
        bool on = false;
        if (!parseOnOff(value, on)) return fail(kUsage, "auto-lun takes on or off");
        return done(c.systemOperation(0x14, {0, 0, 0, uint8_t(on ? 1 : 0)}));
    }
    if (key == "name" || key == "time") {
        std::vector<uint8_t> rec(42, 0);
        rec[0] = 0x7A, rec[1] = 5, rec[3] = 0x26;
        time_t now = std::time(nullptr);
        struct tm local;
        localtime_r(&now, &local);
        const int offset = int(local.tm_gmtoff / 60);
        for (int i = 0; i < 4; ++i) rec[4 + i] = uint8_t(uint32_t(now) >> (24 - 8 * i));
        rec[8] = uint8_t(uint16_t(offset) >> 8), rec[9] = uint8_t(offset);
        std::string name = value;
        if (key == "time") {
            MgmtResult r = c.modeSense(5);
            if (!r.ok) return refusal(r, "read the system page");
            if (r.data.size() < 42) return fail(kMalformed, "system page: short answer");
            std::copy(r.data.begin() + 10, r.data.begin() + 42, rec.begin() + 10);
        } else {
            if (name.size() > 32) return fail(kUsage, "a pack name has at most 32 characters");
            std::copy(name.begin(), name.end(), rec.begin() + 10);
        }
        return done(c.modeSelect(5, rec));
    }
    return fail(kUsage, "unknown setting " + key);
}
}  // namespace

int main(int argc, char** argv) {
    std::string portal = std::getenv("ESA_PORTAL") ? std::getenv("ESA_PORTAL") : "127.0.0.1:3260";
    std::string listen = "127.0.0.1:8080";
    bool json = false;
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--portal" && i + 1 < argc) portal = argv[++i];
        else if (a == "--listen" && i + 1 < argc) listen = argv[++i];
        else if (a == "--json") json = true;
        else if (a == "-h" || a == "--help") return usage(), 0;
        else if (a.rfind("--", 0) == 0) return usage();
        else args.push_back(a);
    }
    if (args.empty()) return usage();
    const std::string cmd = args[0];
    if (cmd == "serve") {
        if (args.size() != 1) return usage();
        return serveStatusPage(portal, listen);
    }
    static const std::vector<std::string> kCommands = {"status", "slots", "capacity", "luns", "events", "lights",
                                                       "set", "create-lun", "delete-lun", "identify"};
    if (std::find(kCommands.begin(), kCommands.end(), cmd) == kCommands.end()) return usage();
    const size_t wanted = cmd == "set" ? 3 : (cmd == "create-lun" || cmd == "delete-lun") ? 2 : 1;
    if (args.size() != wanted) return usage();
    uint64_t size = 0;
    long lunNumber = -1;
    if (cmd == "create-lun" && !parseSize(args[1], size)) return fail(kUsage, "bad size " + args[1] + " (e.g. 100G)");
    if (cmd == "delete-lun") {
        char* end = nullptr;
        lunNumber = std::strtol(args[1].c_str(), &end, 10);
        if (*end || lunNumber < 0 || lunNumber > 31) return fail(kUsage, "bad LUN number " + args[1]);
    }

    MgmtClient client;
    if (!client.connect(portal)) return fail(kUnreachable, client.lastError());

    if (cmd == "set") return runSet(client, args[1], args[2], json);
    if (cmd == "identify") {
        MgmtResult r = client.systemOperation(0x06, {});
        if (!r.ok) return refusal(r, "identify");
        if (!json) std::printf("identify pattern on for 10 seconds\n");
        else std::cout << nlohmann::json{{"identify", true}}.dump() << "\n";
        return kOk;
    }
    if (cmd == "create-lun") {
        std::vector<uint8_t> data(10, 0);
        for (int i = 0; i < 8; ++i) data[size_t(i)] = uint8_t(size >> (56 - 8 * i));
        MgmtResult r = client.systemOperation(0x12, data);
        if (!r.ok) return refusal(r, "create-lun " + args[1]);
        if (json) std::cout << nlohmann::json{{"created", true}, {"size_bytes", size}, {"pending", true}}.dump() << "\n";
        else std::printf("LUN of %s accepted: it appears at the next restart of the appliance\n", bytesText(size).c_str());
        return kOk;
    }
    if (cmd == "events") {
        std::vector<std::string> events;
        std::string error;
        if (!readEvents(client, events, error)) return fail(kRefused, error);
        if (json) std::cout << nlohmann::json(events).dump() << "\n";
        else for (const std::string& e : events) std::printf("%s\n", e.c_str());
        return kOk;
    }
    Snapshot snap;
    std::string error;
    bool refused = false;
    if (!readSnapshot(client, snap, error, refused)) return fail(refused ? kRefused : kMalformed, error);
    if (cmd == "delete-lun") {
        const Snapshot::Lun* lun = nullptr;
        for (const Snapshot::Lun& l : snap.luns)
            if (l.lun == lunNumber) lun = &l;
        if (!lun) return fail(kRefused, "delete-lun " + args[1] + ": no such LUN");
        std::vector<uint8_t> data = {uint8_t(lun->uniqueId >> 8), uint8_t(lun->uniqueId), uint8_t(lunNumber), 0};
        MgmtResult r = client.systemOperation(0x13, data);
        if (!r.ok) {
            if (r.reached && r.asc == 0x2000)
                return fail(kRefused, "delete-lun " + args[1] + ": the appliance refused: it cannot delete LUNs yet");
            return refusal(r, "delete-lun " + args[1]);
        }
        if (json) std::cout << nlohmann::json{{"deleted", lunNumber}}.dump() << "\n";
        else std::printf("LUN %ld deleted\n", lunNumber);
        return kOk;
    }
    if (json) {
        nlohmann::json out = cmd == "status"     ? statusJson(snap)
                             : cmd == "slots"    ? slotsJson(snap)
                             : cmd == "capacity" ? capacityJson(snap)
                             : cmd == "luns"     ? lunsJson(snap)
                                                 : lightsJson(snap);
        std::cout << out.dump(2) << "\n";
        return kOk;
    }
    if (cmd == "status") printStatus(snap);
    else if (cmd == "slots") printSlots(snap);
    else if (cmd == "capacity") printCapacity(snap);
    else if (cmd == "luns") printLuns(snap);
    else printLights(snap);
    return kOk;
}
