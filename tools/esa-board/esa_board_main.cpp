// esa-board: offline edits of a simulated board directory.
//
//   esa-board create DIR [--disks 64G,64G,32G,32G]   a new board; each disk SIZE[:SERIAL[:MODEL[:FIRMWARE]]]
//   esa-board list DIR                                 slots, disks, faults, and the disks on the shelf
//   esa-board insert DIR SLOT SIZE|DISKFILE            a new disk, or a disk's .img (its .json beside it)
//   esa-board pull DIR SLOT                            the disk goes to DIR/shelf/SERIAL.{img,json}
//   esa-board fault DIR SLOT KIND [WORDS...]           arm a fault (see below); "clear", "list", "bad LBA"
//   esa-board button DIR on|off|flicker                the disk-clear button
//   esa-board cut DIR [--within MS] [--seed N]         a power cut of the running esa, now or at a
//                                                      moment the board draws within MS milliseconds
//
// Fault words: KIND [read|write|any] [lba=A[-B]] [once|always|times=N] [ms=N] [queries=N]
// with KIND one of media, recovered, recoveredchannel, channel, accesstimeout,
// channeltimeout, notpresent, startfailure, sizezero, latency.
// While esa runs, use its console instead (insertDisk, removeDisk, injectError).
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/board/Board.h"
#include "platform/board/BoardPowerCut.h"
#include "platform/drive/SimDriveController.h"

namespace fs = std::filesystem;

namespace {

int usage() {
    std::cerr << "usage: esa-board create DIR [--disks 64G,64G,32G,32G]\n"
                 "       esa-board list DIR\n"
                 "       esa-board insert DIR SLOT SIZE|DISKFILE\n"
                 "       esa-board pull DIR SLOT\n"
                 "       esa-board fault DIR SLOT KIND [read|write|any] [lba=A[-B]] [once|always|times=N] [ms=N] "
                 "[queries=N]\n"
                 "       esa-board fault DIR SLOT clear|list|bad LBA\n"
                 "       esa-board button DIR on|off|flicker\n"
                 "       esa-board cut DIR [--within MS] [--seed N]\n";
    return 2;
}

std::vector<std::string> split(const std::string& s, char sep) {
    std::vector<std::string> out;
    std::stringstream ss(s);
    std::string part;
    while (std::getline(ss, part, sep)) out.push_back(part);
    return out;
}

bool parseSlot(const std::string& text, unsigned& slot) {
    if (text.size() != 1 || text[0] < '0' || text[0] > '7') {
        std::cerr << "esa-board: slot must be 0 to 7, not '" << text << "'\n";
        return false;
    }
    slot = unsigned(text[0] - '0');
    return true;
}

// Opens an existing board; false (with a message) when DIR is not one.
bool openBoard(const fs::path& dir) {
    if (!fs::exists(dir / "board.json")) {
        std::cerr << "esa-board: " << dir << " is not a board (no board.json); use esa-board create\n";
        return false;
    }
    Board::GetInstance().open(dir);
    return true;
}

std::string sizeText(uint64_t sectors) {
    char buf[64];
    double gib = double(sectors) * kSectorSize / double(1ull << 30);
    std::snprintf(buf, sizeof buf, "%.1f GiB", gib);
    return buf;
}

int create(const fs::path& dir, const std::string& disks) {
    if (fs::exists(dir / "board.json")) {
        std::cerr << "esa-board: " << dir << " already holds a board\n";
        return 1;
    }
    auto specs = split(disks, ',');
    if (specs.size() > kDriveSlots) {
        std::cerr << "esa-board: at most 8 disks\n";
        return 2;
    }
    std::vector<std::pair<uint64_t, SimDisk::Identity>> parsed;
    for (auto& spec : specs) {
        auto f = split(spec, ':');
        uint64_t sectors = 0;
        if (f.empty() || !SimDisk::parseSize(f[0], sectors)) {
            std::cerr << "esa-board: bad disk size '" << spec << "' (e.g. 64G, 512M, 2T, 1000000s)\n";
            return 2;
        }
        SimDisk::Identity id;
        if (f.size() > 1) id.serial = f[1];
        if (f.size() > 2) id.model = f[2];
        if (f.size() > 3) id.firmware = f[3];
        parsed.push_back({sectors, id});
    }
    Board::createDefault(dir);
    for (size_t s = 0; s < parsed.size(); ++s) {
        std::string err;
        if (!SimDisk::create(dir / "slots" / std::to_string(s), parsed[s].first, parsed[s].second, err)) {
            std::cerr << "esa-board: slot " << s << ": " << err << "\n";
            return 1;
        }
    }
    std::cout << "created board " << dir.string() << " with " << parsed.size() << " disks\n";
    return 0;
}

void printDisk(const std::string& where, const nlohmann::json& j) {
    std::cout << where << ": " << j.value("model", std::string()) << ", firmware " << j.value("firmware", std::string())
              << ", serial " << j.value("serial", std::string()) << ", " << j.value("sectors", uint64_t(0))
              << " sectors (" << sizeText(j.value("sectors", uint64_t(0))) << ")";
    auto bad = j.value("badSectors", nlohmann::json::array());
    if (!bad.empty()) std::cout << ", " << bad.size() << " bad sectors";
    std::cout << "\n";
    for (auto& f : j.value("faults", nlohmann::json::array()))
        if (auto fault = DiskFault::fromJson(f)) std::cout << "    fault: " << fault->describe() << "\n";
}

int list(const fs::path& dir) {
    if (!openBoard(dir)) return 1;
    auto cfg = Board::GetInstance().config();
    std::cout << "board " << fs::absolute(dir).string() << ": serial " << cfg.value("serialNumber", std::string())
              << ", clear button " << cfg.value("clearButton", nlohmann::json(0)).dump() << "\n";
    for (unsigned s = 0; s < kDriveSlots; ++s) {
        auto j = SimDisk::readSidecar(dir / "slots" / std::to_string(s));
        if (j) printDisk("slot " + std::to_string(s), *j);
        else std::cout << "slot " << s << ": empty\n";
    }
    if (fs::exists(dir / "shelf"))
        for (auto& e : fs::directory_iterator(dir / "shelf"))
            if (e.path().extension() == ".json") {
                fs::path base = e.path();
                base.replace_extension();
                if (auto j = SimDisk::readSidecar(base)) printDisk("shelf " + (base.string() + ".img"), *j);
            }
    return 0;
}

int fault(const fs::path& dir, unsigned slot, const std::vector<std::string>& words) {
    if (!openBoard(dir)) return 1;
    SimDriveController& ctl = SimDriveController::GetInstance();
    std::string err;
    if (words.size() == 1 && words[0] == "clear") {
        if (!ctl.clearFaults(slot, err)) return std::cerr << "esa-board: " << err << "\n", 1;
        return 0;
    }
    if (words.size() == 1 && words[0] == "list") {
        auto d = ctl.disk(slot);
        if (!d) return std::cerr << "esa-board: slot " << slot << " is empty\n", 1;
        for (auto& f : d->faults()) std::cout << f.describe() << "\n";
        return 0;
    }
    if (words.size() == 2 && words[0] == "bad") {
        char* end = nullptr;
        uint64_t lba = std::strtoull(words[1].c_str(), &end, 0);
        if (!end || *end) return std::cerr << "esa-board: bad LBA '" << words[1] << "'\n", 2;
        if (!ctl.addBadSector(slot, lba, err)) return std::cerr << "esa-board: " << err << "\n", 1;
        return 0;
    }
    auto f = DiskFault::parse(words, err);
    if (!f) return std::cerr << "esa-board: " << err << "\n", 2;
    if (!ctl.addFault(slot, *f, err)) return std::cerr << "esa-board: " << err << "\n", 1;
    std::cout << "slot " << slot << ": " << f->describe() << "\n";
    return 0;
}

// A power cut of the esa running on the board, at a moment the board
// chooses: the esa's board layer freezes every drive's medium at the signal
// and the process ends as by kill -9. Waits until the process is gone.
int cut(const fs::path& dir, const std::vector<std::string>& options) {
    uint64_t withinMs = 0, seed = std::random_device{}();
    for (size_t i = 0; i + 1 < options.size(); i += 2) {
        char* end = nullptr;
        uint64_t v = std::strtoull(options[i + 1].c_str(), &end, 0);
        if (!end || *end) return usage();
        if (options[i] == "--within") withinMs = v;
        else if (options[i] == "--seed") seed = v;
        else return usage();
    }
    if (options.size() % 2) return usage();
    pid_t pid = boardEsaPid(dir);
    if (pid < 0) {
        std::cerr << "esa-board: no esa runs on " << dir.string() << "\n";
        return 1;
    }
    if (withinMs) {
        std::mt19937_64 random(seed);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % (withinMs * 1000)));
    }
    if (::kill(pid, SIGPWR) != 0) {
        std::cerr << "esa-board: esa " << pid << " is gone\n";
        return 1;
    }
    // Gone, or a zombie that its parent has still to collect.
    for (int i = 0; i < 2000; ++i) {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string pidText, name, state;
        if (!(stat >> pidText >> name >> state) || state == "Z" || state == "X") {
            std::cout << "power cut: esa " << pid << "\n";
            return 0;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::cerr << "esa-board: esa " << pid << " still runs after the cut\n";
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> a(argv + 1, argv + argc);
    if (a.size() < 2) return usage();
    const std::string& cmd = a[0];
    fs::path dir = a[1];
    try {
        if (cmd == "create") {
            std::string disks = "64G,64G,32G,32G";
            if (a.size() == 4 && a[2] == "--disks") disks = a[3];
            else if (a.size() != 2) return usage();
            return create(dir, disks);
        }
        if (cmd == "list" && a.size() == 2) return list(dir);
        if (cmd == "button" && a.size() == 3) {
            if (!openBoard(dir)) return 1;
            nlohmann::json value;
            if (a[2] == "on") value = 1;
            else if (a[2] == "off") value = 0;
            else if (a[2] == "flicker") value = "flicker";
            else return usage();
            Board::GetInstance().updateConfig([&](nlohmann::json& j) { j["clearButton"] = value; });
            return 0;
        }
        if (cmd == "cut") return cut(dir, {a.begin() + 2, a.end()});
        unsigned slot = 0;
        if (a.size() < 3 || !parseSlot(a[2], slot)) return usage();
        if (cmd == "insert" && a.size() == 4) {
            if (!openBoard(dir)) return 1;
            std::string msg;
            bool ok = SimDriveController::GetInstance().insertDisk(slot, a[3], msg);
            (ok ? std::cout : std::cerr) << (ok ? "" : "esa-board: ") << msg << "\n";
            return ok ? 0 : 1;
        }
        if (cmd == "pull" && a.size() == 3) {
            if (!openBoard(dir)) return 1;
            std::string msg;
            bool ok = SimDriveController::GetInstance().pullDisk(slot, msg);
            if (ok) std::cout << "slot " << slot << ": disk moved to " << msg << "\n";
            else std::cerr << "esa-board: " << msg << "\n";
            return ok ? 0 : 1;
        }
        if (cmd == "fault" && a.size() >= 4) return fault(dir, slot, {a.begin() + 3, a.end()});
    } catch (const std::exception& e) {
        std::cerr << "esa-board: " << e.what() << "\n";
        return 1;
    }
    return usage();
}
