#include "tests/soak/SoakWorkloads.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "tests/support/EsaProcess.h"
#include "tests/support/IscsiHost.h"
#include "tests/support/PackImage.h"
#include "tools/esa-load/VerifyBlock.h"

namespace {

std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> out;
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

std::string join(const std::vector<unsigned>& values) {
    std::string out;
    for (unsigned v : values) out += " " + std::to_string(v);
    return out;
}

// The console broke: the esa is gone (the cut came).
// The console gave no answer and the esa of the board is no longer running
// (a console call that fails while esa runs, under a heavily loaded
// machine, is tried again by the caller).
bool gone(const ConsoleResult& r, const std::string& board) {
    if (r.rc != -1000) return false;
    std::ifstream in(board + "/esa.pid");
    pid_t pid = 0;
    if (!(in >> pid) || pid <= 0 || ::kill(pid, 0) != 0) return true;
    // A cut esa not yet reaped by its parent is gone too.
    // Read with plain calls: a stream reading /proc throws when the process
    // goes away under it.
    std::string text;
    if (int fd = ::open(("/proc/" + std::to_string(pid) + "/stat").c_str(), O_RDONLY | O_CLOEXEC); fd >= 0) {
        char buf[512];
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n > 0) text.assign(buf, size_t(n));
        ::close(fd);
    }
    const size_t paren = text.rfind(')');
    return paren == std::string::npos || paren + 2 >= text.size() || text[paren + 2] == 'Z';
}

}  // namespace

// ---- Zone patterns

bool ZonePatternWorkload::prepare(const std::string& board, AckLog& log, std::mt19937_64&) {
    log.intent("zones");
    ConsoleResult r = runConsoleCommand(board, "alloczones " + std::to_string(kZones));
    std::vector<unsigned> zones = packimage::allocatedZonesIn(r.output);
    if (r.rc != 0 || zones.size() != kZones) return false;
    log.ack("zones" + join(zones));
    return true;
}

void ZonePatternWorkload::run(const std::string& board, AckLog& log, std::mt19937_64& random,
                              const std::atomic<bool>& stop) {
    std::vector<unsigned> zones;
    for (auto& e : log.entries())
        if (e.acknowledged && e.request == "zones")
            for (size_t i = 1; i < words(e.result).size(); ++i) zones.push_back(unsigned(std::stoul(words(e.result)[i])));
    if (zones.empty()) return;
    while (!stop) {
        unsigned zone = zones[random() % zones.size()];
        unsigned slot = unsigned(random() % kSlots);
        uint32_t seed = uint32_t(random() % 1000000) + 1;
        std::string request = "write " + std::to_string(zone) + " " + std::to_string(slot) + " " + std::to_string(seed);
        log.intent(request);
        ConsoleResult r = runConsoleCommand(board, "writeVerifyZM " + std::to_string(zone) + " " +
                                                       std::to_string(slot * kSlotBytes) + " " +
                                                       std::to_string(kSlotBytes) + " " + std::to_string(seed));
        if (gone(r, board)) return;
        if (r.rc == 0) log.ack(request);
        else log.refused(std::to_string(r.rc) + " " + r.output.substr(r.output.find('\n') + 1));
    }
}

void ZonePatternWorkload::check(const std::string& board, const AckLog& log, SoakTally& tally) {
    // Per Zone and slot: the last acknowledged seed, unless a later write to
    // the slot went out unacknowledged.
    std::map<std::pair<unsigned, unsigned>, uint32_t> last;
    for (auto& e : log.entries()) {
        auto w = words(e.request);
        if (w.size() != 4 || w[0] != "write") continue;
        auto key = std::make_pair(unsigned(std::stoul(w[1])), unsigned(std::stoul(w[2])));
        if (e.acknowledged) last[key] = uint32_t(std::stoul(w[3]));
        else last.erase(key);
    }
    for (auto& [key, seed] : last) {
        ++tally.checked;
        ConsoleResult r = runConsoleCommand(board, "writeVerifyZM " + std::to_string(key.first) + " " +
                                                       std::to_string(key.second * kSlotBytes) + " " +
                                                       std::to_string(kSlotBytes) + " " + std::to_string(seed) +
                                                       " verify");
        if (r.rc == 0 && r.output.find("verify passed") != std::string::npos) continue;
        ++tally.lost;
        tally.failures.push_back("Zone " + std::to_string(key.first) + " slot " + std::to_string(key.second) +
                                 ": the acknowledged pattern " + std::to_string(seed) + " is lost:\n" + r.output);
    }
}

// ---- Zone churn

void ZoneChurnWorkload::run(const std::string& board, AckLog& log, std::mt19937_64& random,
                            const std::atomic<bool>& stop) {
    // The Zones this workload holds for sure: acknowledged, and not touched by
    // a request that went out unacknowledged since.
    std::set<unsigned> live;
    for (auto& e : log.entries()) {
        auto w = words(e.request);
        if (w.empty()) continue;
        if (w[0] == "free" && w.size() == 2) live.erase(unsigned(std::stoul(w[1])));
        if (w[0] == "alloc" && e.acknowledged) {
            auto r = words(e.result);
            for (size_t i = 2; i < r.size(); ++i) live.insert(unsigned(std::stoul(r[i])));
        }
    }
    while (!stop) {
        if (live.size() < kMostLive && (live.size() < 2 || random() % 2)) {
            unsigned n = 1 + unsigned(random() % 3);
            log.intent("alloc " + std::to_string(n));
            ConsoleResult r = runConsoleCommand(board, "alloczones " + std::to_string(n));
            if (gone(r, board)) return;
            std::vector<unsigned> zones = packimage::allocatedZonesIn(r.output);
            // Each Zone printed was committed, even when a later one failed.
            log.ack("alloc " + std::to_string(n) + join(zones));
            live.insert(zones.begin(), zones.end());
            if (r.rc != 0) return;  // no more room: this start's churn is over
        } else if (!live.empty()) {
            auto it = live.begin();
            std::advance(it, long(random() % live.size()));
            unsigned zone = *it;
            log.intent("free " + std::to_string(zone));
            ConsoleResult r = runConsoleCommand(board, "deallocateZone " + std::to_string(zone));
            if (gone(r, board)) return;
            live.erase(zone);
            if (r.rc == 0) log.ack("free " + std::to_string(zone));
        }
    }
}

void ZoneChurnWorkload::check(const std::string& board, const AckLog& log, SoakTally& tally) {
    // Per Zone: in use or free as its last acknowledged request left it,
    // unless a request in flight at a cut could have changed it since (a free
    // of it, or any allocation, which may have taken its number).
    std::map<unsigned, bool> expectInUse;
    for (auto& e : log.entries()) {
        auto w = words(e.request);
        if (w.empty()) continue;
        if (w[0] == "alloc") {
            if (e.acknowledged) {
                auto r = words(e.result);
                for (size_t i = 2; i < r.size(); ++i) expectInUse[unsigned(std::stoul(r[i]))] = true;
            }
            if (!e.acknowledged || words(e.result).size() < 2 + std::stoul(w[1]))
                for (auto it = expectInUse.begin(); it != expectInUse.end();)
                    it = it->second ? std::next(it) : expectInUse.erase(it);
        } else if (w[0] == "free" && w.size() == 2) {
            unsigned zone = unsigned(std::stoul(w[1]));
            if (e.acknowledged) expectInUse[zone] = false;
            else expectInUse.erase(zone);
        }
    }
    for (auto& [zone, inUse] : expectInUse) {
        ++tally.checked;
        ConsoleResult r = runConsoleCommand(board, "dumpZoneTableEntry " + std::to_string(zone));
        const bool nowInUse = r.rc == 0 && r.output.find("NotInUse") == std::string::npos;
        if (nowInUse == inUse) continue;
        ++tally.lost;
        tally.failures.push_back("Zone " + std::to_string(zone) + ": acknowledged " +
                                 (inUse ? "allocated" : "freed") + " but now " + (nowInUse ? "in use" : "free") +
                                 ":\n" + r.output);
    }
}

// ---- host writes over iSCSI

namespace {

constexpr uint64_t kHostSectorSeed = 0x50a4;

// Connects to the esa on `port` once its target listens and the pack is
// loaded; gives up when `stop` is set or the esa is gone.
bool connectHost(IscsiHostConnection& c, uint16_t port, const std::string& board, const std::atomic<bool>& stop) {
    while (!stop) {
        ConsoleResult state = runConsoleCommand(board, "state DPM");
        if (gone(state, board)) return false;
        if (state.output.find("DISK PACK IS LOADED") != std::string::npos && c.open(port, "soak")) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

struct HostWriteRecord {
    uint64_t gen = 0, lba = 0;
    uint32_t sectors = 0;
};

// "write GEN LBA SECTORS"
bool parseHostWrite(const std::string& request, HostWriteRecord& w) {
    auto v = words(request);
    if (v.size() != 4 || v[0] != "write") return false;
    w.gen = std::stoull(v[1]);
    w.lba = std::stoull(v[2]);
    w.sectors = uint32_t(std::stoul(v[3]));
    return true;
}

}  // namespace

void HostWriteWorkload::environment(std::map<std::string, std::string>& env) {
    mPort = freeLocalPort();
    env["ESA_PORTAL"] = "127.0.0.1:" + std::to_string(mPort);
}

void HostWriteWorkload::run(const std::string& board, AckLog& log, std::mt19937_64& random,
                            const std::atomic<bool>& stop) {
    IscsiHostConnection c;
    if (!connectHost(c, mPort, board, stop)) return;
    // Generations go on from the log, so that each write of the soak has its own.
    uint64_t gen = log.entries().size() + 1;
    std::vector<uint8_t> buffer(kMostSectors * verify::kSector);
    while (!stop) {
        uint32_t sectors = 1 + uint32_t(random() % kMostSectors);
        uint64_t lba = kAreaStart + random() % (kAreaSectors - sectors + 1);
        for (uint32_t s = 0; s < sectors; ++s)
            verify::fillSector(buffer.data() + s * verify::kSector, 0, lba + s, gen, kHostSectorSeed);
        std::string request = "write " + std::to_string(gen) + " " + std::to_string(lba) + " " + std::to_string(sectors);
        log.intent(request);
        scsi_task* task = iscsi_write16_sync(c.ctx, 0, lba, buffer.data(), sectors * verify::kSector,
                                             verify::kSector, 0, 0, 0, 0, 0);
        const bool good = task && task->status == SCSI_STATUS_GOOD;
        if (task) scsi_free_scsi_task(task);
        if (!good) return;  // the power went: the write stays in flight
        log.ack(request);
        ++gen;
    }
}

void HostWriteWorkload::check(const std::string& board, const AckLog& log, SoakTally& tally) {
    // Per sector, the generations it may hold: the last acknowledged write
    // covering it and any write to it in flight at a cut since. A sector no
    // acknowledged write covered is not checked.
    std::map<uint64_t, std::vector<uint64_t>> allowed;
    for (auto& e : log.entries()) {
        HostWriteRecord w;
        if (!parseHostWrite(e.request, w)) continue;
        for (uint64_t lba = w.lba; lba < w.lba + w.sectors; ++lba) {
            if (e.acknowledged) allowed[lba] = {w.gen};
            else if (auto it = allowed.find(lba); it != allowed.end()) it->second.push_back(w.gen);
        }
    }
    if (allowed.empty()) return;
    std::atomic<bool> never{false};
    IscsiHostConnection c;
    if (!connectHost(c, mPort, board, never)) {
        tally.failures.push_back("hostwrite: no iSCSI connection to the restarted esa on port " +
                                 std::to_string(mPort));
        return;
    }
    std::set<uint64_t> writesChecked, writesLost;
    for (uint64_t start = kAreaStart; start < kAreaStart + kAreaSectors; start += kMostSectors) {
        scsi_task* task = iscsi_read16_sync(c.ctx, 0, start, kMostSectors * verify::kSector, verify::kSector, 0, 0,
                                            0, 0, 0);
        if (!task || task->status != SCSI_STATUS_GOOD || task->datain.size < int(kMostSectors * verify::kSector)) {
            tally.failures.push_back("hostwrite: the read at LBA " + std::to_string(start) + " failed");
            if (task) scsi_free_scsi_task(task);
            return;
        }
        for (uint32_t s = 0; s < kMostSectors; ++s) {
            auto it = allowed.find(start + s);
            if (it == allowed.end()) continue;
            const uint8_t* sector = task->datain.data + s * verify::kSector;
            const uint64_t expected = it->second.front();  // the acknowledged one
            writesChecked.insert(expected);
            const uint64_t found = verify::get64(sector + 16);
            bool known = false;
            for (uint64_t g : it->second) known |= g == found;
            std::string bad = verify::checkSector(sector, 0, start + s, known ? found : expected, kHostSectorSeed);
            if (bad.empty()) continue;
            if (writesLost.insert(expected).second && writesLost.size() <= 10)
                tally.failures.push_back("hostwrite: LBA " + std::to_string(start + s) + " of acknowledged write " +
                                         std::to_string(expected) + ": " + bad);
        }
        scsi_free_scsi_task(task);
    }
    tally.checked += writesChecked.size();
    tally.lost += writesLost.size();
}
