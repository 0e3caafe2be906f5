#include "tools/esactl/MgmtRecords.h"

#include <algorithm>
#include <cstdio>

namespace esactl {
namespace {
uint16_t be16(const std::vector<uint8_t>& d, size_t o) { return uint16_t(d[o] << 8 | d[o + 1]); }
uint32_t be32(const std::vector<uint8_t>& d, size_t o) { return uint32_t(be16(d, o)) << 16 | be16(d, o + 2); }
uint64_t be64(const std::vector<uint8_t>& d, size_t o) { return uint64_t(be32(d, o)) << 32 | be32(d, o + 4); }
std::string text(const std::vector<uint8_t>& d, size_t o, size_t n) {
    std::string s(reinterpret_cast<const char*>(d.data() + o), n);
    s = s.substr(0, s.find('\0'));
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}

// One page, checked for its mark, page byte and length.
bool page(MgmtClient& c, uint8_t code, size_t length, std::vector<uint8_t>& out, std::string& error, bool& refused) {
    MgmtResult r = c.modeSense(code);
    if (!r.ok) {
        refused = r.reached && r.senseKey != 0;
        error = "page 0x" + [&] { char b[8]; std::snprintf(b, sizeof b, "%02x", code); return std::string(b); }() +
                ": " + r.error;
        return false;
    }
    if (r.data.size() < length) {
        error = "page " + std::to_string(code) + ": short answer of " + std::to_string(r.data.size()) + " bytes, " +
                std::to_string(length) + " expected";
        return false;
    }
    out = std::move(r.data);
    return true;
}
}  // namespace

bool readSnapshot(MgmtClient& c, Snapshot& s, std::string& error, bool& refused) {
    refused = false;
    std::vector<uint8_t> d;
    if (!page(c, 1, 24, d, error, refused)) return false;
    s.packLoaded = be64(d, 7) != 0;
    if (!page(c, 5, 42, d, error, refused)) return false;
    s.clock = be32(d, 4);
    s.name = text(d, 10, 32);
    if (!page(c, 6, 6, d, error, refused)) return false;
    s.protocolMajor = d[4];
    s.protocolMinor = d[5];
    if (!page(c, 8, 198, d, error, refused)) return false;
    s.firmware = std::to_string(d[4]) + "." + std::to_string(d[5]) + "." + std::to_string(be16(d, 6));
    if (!page(c, 9, 16, d, error, refused)) return false;
    s.statusBits = be32(d, 4);
    s.zonesInDanger = be32(d, 8);
    s.notLoadedReason = be32(d, 12);
    if (!page(c, 2, 36, d, error, refused)) return false;
    s.freeBytes = be64(d, 4);
    s.usedBytes = be64(d, 12);
    s.totalBytes = be64(d, 20);
    s.unprotectedBytes = be64(d, 28);
    if (!page(c, 0x30, 13, d, error, refused)) return false;
    s.lowThreshold = d[4] * 100 + d[11];
    s.highThreshold = d[5] * 100 + d[12];
    s.unprotectedSpaceOn = (d[6] & 0x40) != 0;
    if (!page(c, 3, 581, d, error, refused)) return false;
    s.slots.clear();
    for (int i = 0; i < d[4] && i < 8; ++i) {
        const size_t o = 5 + 72 * size_t(i);
        Snapshot::Slot slot;
        slot.slot = d[o + 2];
        slot.sizeBytes = be64(d, o + 3);
        slot.colour = d[o + 19] & 0x7F;
        slot.notInPack = (d[o + 19] & 0x80) != 0;
        slot.model = text(d, o + 20, 32);
        slot.errors = d[o + 68] | d[o + 69] << 8;
        slot.temperature = d[o + 70];
        s.slots.push_back(slot);
    }
    if (!page(c, 0x11, 461, d, error, refused)) return false;
    for (int i = 0; i < d[4] && i < 8 && size_t(i) < s.slots.size(); ++i) {
        const size_t o = 5 + 57 * size_t(i);
        s.slots[size_t(i)].packFlags = d[o + 2] & 0xF0;
        s.slots[size_t(i)].packGeneration = be32(d, o + 11);
        s.slots[size_t(i)].packName = text(d, o + 15, 32);
    }
    if (!page(c, 7, 5, d, error, refused)) return false;
    s.lunCount = d[4];
    s.luns.clear();
    for (size_t o = 5; o + 19 <= d.size() && s.packLoaded; o += 19) {
        if (be16(d, o) != 0x0011) break;
        Snapshot::Lun lun;
        lun.lun = d[o + 2];
        lun.sizeBytes = be64(d, o + 3);
        lun.format = d[o + 13];
        lun.uniqueId = be16(d, o + 14);
        if (lun.sizeBytes > 0) s.luns.push_back(lun);
    }
    return true;
}

std::string bytesText(uint64_t b) {
    const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    double v = double(b);
    int u = 0;
    while (v >= 1024 && u < 4) v /= 1024, ++u;
    char t[32];
    std::snprintf(t, sizeof t, "%.1f %s", v, units[u]);
    return t;
}

std::string colourName(int colour) {
    static const char* const kNames[] = {"off",        "red",             "yellow",    "green",
                                         "flash-yellow-green", "flash-red-green", "flash-red", "flash-red-yellow"};
    return colour >= 0 && colour < 8 ? kNames[colour] : "unknown";
}

std::string slotState(const Snapshot::Slot& s) {
    if (s.packFlags & 0x80) return (s.packFlags & 0x10) ? "missing" : "empty";
    if ((s.packFlags & 0x40) || s.colour == 6) return "failed";
    if (s.colour == 4) return "rebuilding";
    return "ok";
}

std::vector<std::string> statusFlagNames(uint32_t b) {
    static const std::pair<uint32_t, const char*> kFlags[] = {
        {0x2, "above_high_watermark"}, {0x4, "above_low_watermark"}, {0x8, "no_pack_found"},
        {0x10, "bad_slot"}, {0x20, "members_missing"}, {0x40, "disk_needed_for_protection"},
        {0x200, "rebuilding"}, {0x800, "conflicting_packs"}, {0x1000, "unknown_metadata_version"},
        {0x2000, "firmware_staged"}, {0x4000, "lun_config_changed"}, {0x10000, "previous_shutdown_unclean"},
        {0x20000, "auto_lun_create"}, {0x40000, "pack_not_compatible"}, {0x10000000, "metadata_bad"}};
    std::vector<std::string> names;
    for (auto& [bit, name] : kFlags)
        if (b & bit) names.push_back(name);
    return names;
}

// The protocol gives used space for the whole pack: a LUN never used holds
// none, nothing is used when the pack holds nothing, and when only one LUN
// is in use it holds it all.
int64_t lunUsedBytes(const Snapshot& snap, const Snapshot::Lun& lun) {
    if (lun.format == 0x20 || snap.usedBytes == 0) return 0;
    int written = 0;
    for (const Snapshot::Lun& l : snap.luns) written += l.format != 0x20;
    return written == 1 ? int64_t(snap.usedBytes) : -1;
}

uint64_t rawTotalBytes(const Snapshot& snap) {
    uint64_t raw = 0;
    for (const Snapshot::Slot& s : snap.slots)
        if (!(s.packFlags & 0x80) && !s.notInPack) raw += s.sizeBytes;
    return raw;
}

// The raw space the used bytes hold down, redundancy included, at the pack's
// ratio of raw to user capacity.
uint64_t rawUsedBytes(const Snapshot& snap) {
    if (snap.totalBytes == 0) return 0;
    return uint64_t(double(snap.usedBytes) * double(rawTotalBytes(snap)) / double(snap.totalBytes));
}

int meterPercent(const Snapshot& snap) {
    if (snap.totalBytes == 0) return 0;
    return int(std::min<uint64_t>(100, snap.usedBytes * 100 / snap.totalBytes));
}

nlohmann::json statusJson(const Snapshot& s) {
    return {{"name", s.name},
            {"clock", s.clock},
            {"protocol", std::to_string(s.protocolMajor) + "." + std::to_string(s.protocolMinor)},
            {"firmware", s.firmware},
            {"pack_loaded", s.packLoaded},
            {"status_bits", s.statusBits},
            {"flags", statusFlagNames(s.statusBits)},
            {"rebuilding", (s.statusBits & 0x200) != 0},
            {"zones_in_danger", s.zonesInDanger},
            {"not_loaded_reason", s.notLoadedReason},
            {"lun_count", s.lunCount}};
}

nlohmann::json slotsJson(const Snapshot& s) {
    nlohmann::json a = nlohmann::json::array();
    for (const Snapshot::Slot& slot : s.slots)
        a.push_back({{"slot", slot.slot},
                     {"state", slotState(slot)},
                     {"size_bytes", slot.sizeBytes},
                     {"light", colourName(slot.colour)},
                     {"model", slot.model},
                     {"in_pack", !(slot.packFlags & 0x80) && !slot.notInPack},
                     {"errors", slot.errors},
                     {"temperature", slot.temperature}});
    return a;
}

nlohmann::json capacityJson(const Snapshot& s) {
    return {{"total_bytes", s.totalBytes},
            {"used_bytes", s.usedBytes},
            {"free_bytes", s.freeBytes},
            {"raw_used_bytes", rawUsedBytes(s)},
            {"raw_total_bytes", rawTotalBytes(s)},
            {"unprotected_bytes", s.unprotectedBytes},
            {"meter_percent", meterPercent(s)},
            {"low_threshold_percent", s.lowThreshold / 100.0},
            {"high_threshold_percent", s.highThreshold / 100.0}};
}

nlohmann::json lunsJson(const Snapshot& s) {
    nlohmann::json a = nlohmann::json::array();
    for (const Snapshot::Lun& l : s.luns) {
        int64_t used = lunUsedBytes(s, l);
        a.push_back({{"lun", l.lun},
                     {"size_bytes", l.sizeBytes},
                     {"used_bytes", used < 0 ? nlohmann::json(nullptr) : nlohmann::json(used)},
                     {"in_use", l.format != 0x20},
                     {"unique_id", l.uniqueId}});
    }
    return a;
}

nlohmann::json lightsJson(const Snapshot& s) {
    nlohmann::json slots = nlohmann::json::array();
    for (const Snapshot::Slot& slot : s.slots) slots.push_back({{"slot", slot.slot}, {"light", colourName(slot.colour)}});
    return {{"slots", slots}, {"meter_percent", meterPercent(s)}};
}

bool readEvents(MgmtClient& c, std::vector<std::string>& events, std::string& error) {
    // 16 blocks of the appliance's 32 a call: the stream's answers leave the
    // management pool room for other answers.
    constexpr uint16_t kEventChunk = 0x4000;
    // The stream is scrambled with the appliance's generator from a fixed seed.
    uint32_t x = 0x5B7C2E41;
    std::string stream;
    for (int round = 0; round < 64; ++round) {
        MgmtResult r = c.systemOperation(0x07, {}, kEventChunk);
        if (!r.ok) {
            error = "event log: " + r.error;
            return false;
        }
        stream.append(r.data.begin(), r.data.end());
        if (r.data.size() < kEventChunk) break;  // a short answer ends the stream
    }
    std::string plain = stream;
    bool scrambled = plain.rfind("----", 0) != 0;
    if (scrambled)
        for (char& ch : plain) {
            x = x * 0x19660D + 0x3C6EF35F;
            ch = char(uint8_t(ch) ^ uint8_t(x));
        }
    const std::string begin = "----------------------- EVENT LOG -----------------------\n";
    const std::string end = "------------------- EVENT LOG END -----------------------\n";
    size_t b = plain.find(begin), e = plain.find(end);
    if (b == std::string::npos || e == std::string::npos || e < b) {
        error = "event log: the diagnostics stream has no event log section";
        return false;
    }
    size_t pos = b + begin.size();
    while (pos < e) {
        size_t nl = plain.find('\n', pos);
        if (nl == std::string::npos || nl > e) break;
        events.push_back(plain.substr(pos, nl - pos));
        pos = nl + 1;
    }
    return true;
}

}  // namespace esactl
