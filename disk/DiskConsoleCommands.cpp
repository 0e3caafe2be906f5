// Console commands of the physical disk layer. insertDisk, removeDisk and the
// drive faults of injectError act on the board (as a hand at the slot would),
// so the system hears of them the way it hears of real ones.
#include <cstdlib>
#include <iomanip>
#include <random>
#include <string>
#include <vector>

#include "disk/DiskManager.h"
#include "platform/drive/SimDriveController.h"
#include "platform/rtos/Rtos.h"
#include "util/ConsoleCommand.h"

namespace {

bool slotArgument(const char* text, int& slot, std::ostream& out) {
    long long v = 0;
    if (!parseConsoleNumber(text, v) || v < 0 || v >= DiskManager::kSlots) {
        out << "slot must be 0 to 7\n";
        return false;
    }
    slot = int(v);
    return true;
}

int insertDisk(int argc, char** argv, std::ostream& out) {
    int slot;
    if (argc != 3 || !slotArgument(argv[1], slot, out)) {
        out << "usage: insertDisk SLOT SIZE|DISKFILE   (SIZE like 64G; DISKFILE a disk's .img)\n";
        return -1;
    }
    std::string msg;
    bool ok = SimDriveController::GetInstance().insertDisk(unsigned(slot), argv[2], msg);
    out << msg << "\n";
    return ok ? 0 : -1;
}

int removeDisk(int argc, char** argv, std::ostream& out) {
    int slot;
    if (argc != 2 || !slotArgument(argv[1], slot, out)) {
        out << "usage: removeDisk SLOT\n";
        return -1;
    }
    std::string msg;
    bool ok = SimDriveController::GetInstance().pullDisk(unsigned(slot), msg);
    out << (ok ? "disk pulled, now at " : "") << msg << "\n";
    return ok ? 0 : -1;
}

int injectError(int argc, char** argv, std::ostream& out) {
    int slot;
    if (argc < 3 || !slotArgument(argv[1], slot, out)) {
        out << "usage: injectError SLOT read|write|both      fail the next read/write on the slot\n"
               "       injectError SLOT drive KIND [WORDS...]  arm a drive fault (as esa-board fault)\n"
               "       injectError SLOT clear                  disarm the drive's faults\n";
        return -1;
    }
    std::string what = argv[2];
    if (argc == 3 && (what == "read" || what == "write" || what == "both")) {
        DiskManager::GetInstance()->InjectOneShotFault(slot, what != "write", what != "read");
        out << "next " << what << " on slot " << slot << " fails with a media error\n";
        return 0;
    }
    std::string err;
    if (argc == 3 && what == "clear") {
        bool ok = SimDriveController::GetInstance().clearFaults(unsigned(slot), err);
        out << (ok ? "faults cleared" : err) << "\n";
        return ok ? 0 : -1;
    }
    if (what == "drive" && argc >= 4) {
        auto f = DiskFault::parse(std::vector<std::string>(argv + 3, argv + argc), err);
        if (!f || !SimDriveController::GetInstance().addFault(unsigned(slot), *f, err)) {
            out << err << "\n";
            return -1;
        }
        out << "slot " << slot << ": " << f->describe() << "\n";
        return 0;
    }
    out << "unknown injectError form\n";
    return -1;
}

int dmdump(int argc, char** argv, std::ostream& out) {
    int slot;
    long long lba = 0, sectors = 1;
    if (argc < 3 || !slotArgument(argv[1], slot, out) || !parseConsoleNumber(argv[2], lba) || lba < 0 ||
        (argc > 3 && (!parseConsoleNumber(argv[3], sectors) || sectors < 1 || sectors > 64))) {
        out << "usage: dmdump SLOT LBA [NUMSECTORS (1-64)]\n";
        return -1;
    }
    std::vector<uint8_t> buf(size_t(sectors) * kSectorSize + 32);
    uint8_t* p = reinterpret_cast<uint8_t*>((uintptr_t(buf.data()) + 31) & ~uintptr_t(31));
    StatusCode st = DiskManager::GetInstance()->ReadData(slot, p, uint64_t(lba), uint32_t(sectors));
    if (st != StatusCode::Success) {
        out << "read failed: " << st << "\n";
        return -1;
    }
    for (long long s = 0; s < sectors; ++s) {
        out << "LBA 0x" << std::hex << (lba + s) << std::dec << ":\n";
        for (unsigned row = 0; row < kSectorSize; row += 16) {
            const uint8_t* r = p + s * kSectorSize + row;
            out << "  " << std::setw(3) << std::setfill('0') << std::hex << row << ":";
            for (int i = 0; i < 16; ++i) out << " " << std::setw(2) << int(r[i]);
            out << "  ";
            for (int i = 0; i < 16; ++i) out << char(r[i] >= 32 && r[i] < 127 ? r[i] : '.');
            out << std::dec << std::setfill(' ') << "\n";
        }
    }
    return 0;
}

int stressDisks(int argc, char** argv, std::ostream& out) {
    long long minutes = 1;
    if (argc > 2 || (argc == 2 && (!parseConsoleNumber(argv[1], minutes) || minutes < 1))) {
        out << "usage: stressDisks [MINUTES]\n";
        return -1;
    }
    DiskManager* dm = DiskManager::GetInstance();
    std::mt19937_64 rng(tick64Get());
    std::vector<uint8_t> buf(64 * kSectorSize + 32);
    uint8_t* p = reinterpret_cast<uint8_t*>((uintptr_t(buf.data()) + 31) & ~uintptr_t(31));
    uint64_t end = tick64Get() + uint64_t(minutes) * 60 * uint64_t(sysClkRateGet());
    uint64_t reads[DiskManager::kSlots] = {}, errors[DiskManager::kSlots] = {};
    while (tick64Get() < end) {
        bool any = false;
        for (int s = 0; s < DiskManager::kSlots; ++s) {
            uint64_t cap = dm->GetDriveCapacity(s);
            if (!dm->DriveIsReadyNoLock(s) || cap < 64) continue;
            any = true;
            uint32_t n = uint32_t(1 + rng() % 64);
            uint64_t lba = rng() % (cap - n);
            reads[s]++;
            if (dm->ReadData(s, p, lba, n) != StatusCode::Success) errors[s]++;
        }
        if (!any) {
            out << "no disk is ready\n";
            return -1;
        }
    }
    for (int s = 0; s < DiskManager::kSlots; ++s)
        if (reads[s]) out << "slot " << s << ": " << reads[s] << " random reads, " << errors[s] << " errors\n";
    return 0;
}

int smartStatus(int argc, char** argv, std::ostream& out) {
    long long verbosity = 0;
    if (argc > 2 || (argc == 2 && (!parseConsoleNumber(argv[1], verbosity) || verbosity < 0 || verbosity > 2))) {
        out << "usage: SmartStatus [Verbosity: 0, 1 or 2]\n";
        return -1;
    }
    DiskManager* dm = DiskManager::GetInstance();
    diskSmartInfo info[DiskManager::kSlots];
    if (dm->GetDrivesInfo(info, false) == 0) {
        out << "disks are not spinning: no SMART data\n";
        return 0;
    }
    for (int s = 0; s < DiskManager::kSlots; ++s) {
        if (!dm->DriveIsReadyNoLock(s)) {
            if (verbosity > 0) out << "slot " << s << ": not ready\n";
            continue;
        }
        out << "slot " << s << ": temperature " << int(info[s].temperature) << " C";
        if (verbosity > 0)
            out << ", read errors " << int(info[s].rawReadErrors) << ", reallocated " << int(info[s].reallocatedSectors)
                << ", uncorrectable " << int(info[s].offlineUncorrectable) << " (0 good, 100 worst)";
        if (verbosity > 1) out << ", " << *dm->GetDiskWWN(s);
        out << "\n";
    }
    return 0;
}

int temperatureHistory(int, char**, std::ostream& out) {
    DiskManager::GetInstance()->DumpHistory(out, true);
    return 0;
}

int utilizationHistory(int, char**, std::ostream& out) {
    DiskManager::GetInstance()->DumpHistory(out, false);
    return 0;
}

int dmstate(int, char**, std::ostream& out) {
    DiskManager::GetInstance()->Dump(out);
    DiskManager::GetInstance()->PerfInfo(out);
    return 0;
}

}  // namespace

// Referenced from DiskManager so that the linker keeps this file's commands.
void linkDiskConsoleCommands() {}

namespace {
ConsoleCommand gInsertDisk("insertDisk", "Insert a disk", insertDisk);
ConsoleCommand gRemoveDisk("removeDisk", "Remove a disk", removeDisk);
ConsoleCommand gInjectError("injectError", "Inject a read / write error", injectError);
ConsoleCommand gDmdump("dmdump", "read designated Disk, LBA, and numSectors", dmdump);
ConsoleCommand gStressDisks("stressDisks",
                            "Perform random reads on all the available disks, for the specified number of minutes",
                            stressDisks);
ConsoleCommand gSmartStatus("SmartStatus", "SmartStatus [Verbosity: 0, 1 or 2]", smartStatus);
ConsoleCommand gTemperatureHistory("temperatureHistory", "Dumps the max disk temperature history", temperatureHistory);
ConsoleCommand gUtilizationHistory("utilizationHistory", "Dumps the disk utilization history", utilizationHistory);
ConsoleCommand gDmState("dm", "Dumps the disk manager: slots, identities, capacities, queues and timings", dmstate);

}  // namespace
