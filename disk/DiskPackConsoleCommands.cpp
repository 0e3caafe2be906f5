// Console commands of the pack: its name, throwing a disk out for good, and
// the pack manager's state and figures under `state` and `perf`.
#include <string>

#include "disk/DiskManager.h"
#include "disk/DiskPackManager.h"
#include "util/ConsoleCommand.h"
#include "util/ManagerRegistry.h"

namespace {

struct Registration {
    Registration() {
        for (const char* name : {"DiskPackManager", "DPM"})
            ManagerRegistry::add(
                name, [](std::ostream& out) { DiskPackManager::GetInstance()->Dump(out); },
                [](std::ostream& out) { DiskPackManager::GetInstance()->PerfInfo(out); });
    }
} gRegistration;

int setPackName(int argc, char** argv, std::ostream& out) {
    if (argc != 2 || argv[1][0] == 0) {
        out << "usage: setPackName NAME   (up to 31 characters; quote a name with blanks)\n";
        return -1;
    }
    std::string name = argv[1];
    if (name.size() > DisLayout::kNameBytes - 1) {
        out << "pack name too long: at most " << DisLayout::kNameBytes - 1 << " characters\n";
        return -1;
    }
    StatusCode st = DiskPackManager::GetInstance()->setDiskPackName(name.c_str());
    if (st != StatusCode::Success) {
        out << "setPackName failed: " << st << "\n";
        return -1;
    }
    out << "Disk pack name set to [" << name << "]\n";
    return 0;
}

int expungeDisk(int argc, char** argv, std::ostream& out) {
    long long slot = -1;
    if (argc < 2 || !parseConsoleNumber(argv[1], slot) || slot < 0 || slot >= DiskManager::kSlots) {
        out << "usage: expungeDisk SLOT [REASON]   (slot 0 to 7; the disk is refused by every pack from then on)\n";
        return -1;
    }
    // The reason the disk carries: the operator's words, or the command's own name.
    std::string reason = "expungeDisk";
    if (argc > 2) {
        reason = argv[2];
        for (int i = 3; i < argc; ++i) reason += std::string(" ") + argv[i];
    }
    uint16_t ld = 0;
    if (DiskPackManager::GetInstance()->getLdNum(uint16_t(slot), ld) != StatusCode::Success) {
        out << "slot " << slot << " holds no disk of the loaded pack\n";
        return -1;
    }
    DiskPackManager::GetInstance()->expungePhysicalDisk(uint16_t(slot), reason.c_str());
    out << "Expunge of LD #" << ld << " in slot " << slot << " requested [" << reason << "]\n";
    return 0;
}

ConsoleCommand gSetPackName("setPackName", "Set the name of the disk pack", setPackName);
ConsoleCommand gExpungeDisk("expungeDisk", "PERMANENTLY remove disk and prevent use in other packs", expungeDisk);

}  // namespace
