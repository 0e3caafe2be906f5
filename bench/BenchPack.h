#pragma once
// What the benchmarks of the layers above the disks share: a temporary board
// of blank, zero-latency sparse disks with the disk layer started on it, and
// a new pack made on them by the pack layer with the Region and Zone layers
// loaded (the rest of the system's load is not needed for their I/O).
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "disk/DiskManager.h"
#include "disk/DiskPackManager.h"
#include "platform/board/Board.h"
#include "platform/drive/SimDriveController.h"
#include "platform/rtos/Rtos.h"
#include "region/RegionManager.h"
#include "zone/ZoneManager.h"

namespace benchpack {

// The board's directory; exits the program when the board cannot be made.
inline std::filesystem::path makeBoard(const char* program, int disks, uint64_t sectors) {
    std::string tmpl = std::string("/tmp/esa-") + program + "-XXXXXX";
    std::filesystem::path dir = ::mkdtemp(tmpl.data());
    Board::createDefault(dir);
    for (int s = 0; s < disks; ++s) {
        std::string err;
        if (!SimDisk::create(dir / "slots" / std::to_string(s), sectors, {}, err)) {
            std::fprintf(stderr, "%s: %s\n", program, err.c_str());
            std::exit(1);
        }
    }
    ::setenv("ESA_BOARD", dir.c_str(), 1);
    Board::GetInstance().open(dir);
    taskRegisterSelf("tBench", 120);
    return dir;
}

// The disks, started; `what` names the failed step.
inline StatusCode startDisks(const char*& what) {
    what = "disks";
    StatusCode st = DiskManager::GetInstance()->Initialize();
    if (st.ok()) st = DiskManager::GetInstance()->LoadDiskPack(false);
    return st;
}

// A new pack on the blank disks, and the Region and Zone layers loaded.
inline StatusCode makePack(const char*& what) {
    RegionManager* rm = RegionManager::GetInstance();
    StatusCode st;
    if (!(st = rm->Initialize()).ok()) return what = "Region layer", st;
    DiskPackManager* dpm = DiskPackManager::GetInstance();
    dpm->setSecondStageForTest([] {
        DiskPackManager::GetInstance()->diskPackLoadStatus(StatusCode::Success);
        return true;
    });
    if (!(st = dpm->doColdStart(true)).ok()) return what = "new pack", st;
    if (!(st = rm->LoadDiskPack()).ok()) return what = "Region pack load", st;
    if (!(st = ZoneManager::GetInstance()->LoadDiskPack()).ok()) return what = "Zone table load", st;
    return st;
}

}  // namespace benchpack
