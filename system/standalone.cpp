#include "system/standalone.h"

#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>

#include "disk/DiskPackManager.h"
#include "management/ConsoleServer.h"
#include "management/EventLogManager.h"
#include "platform/board/Board.h"
#include "platform/board/BoardServices.h"
#include "platform/flash/Flash.h"
#include "platform/rtos/Rtos.h"
#include "platform/target/TargetDriver.h"
#include "system/FlashConfigData.h"
#include "system/SystemManager.h"
#include "util/Assert.h"
#include "util/ConsoleCommand.h"
#include "util/Trace.h"

namespace {
const char* gProgramName = "esa";
ConsoleCommand gReboot("reboot", "Use \"reboot confirm\" to perform a clean shutdown and reboot of the array",
                       rebootCommandHandler);
}  // namespace

int GetStableDiskClearButtonStatus() {
    int fd = boardOpen("/ESA_REGISTER", O_RDWR);
    if (fd < 0) {
        std::printf("Unable to open ESA Driver\n");
        return 0;
    }
    int previous = 0, run = 0;
    bool stable = false;
    for (int samples = 0; samples < 100; ++samples) {
        int value = 0;
        boardIoctl(fd, EsaRegisterIoctl::DiskClearButton, intptr_t(&value));
        run += 1;
        if (value != previous) {
            previous = value;
            run = 0;
        } else if (run > 5) {
            stable = true;
        }
        taskDelay(1);
        if (stable) break;
    }
    boardClose(fd);
    if (!stable) {
        std::printf("DISK_CLEAR button not stable.\n");
        return 0;
    }
    return previous;
}

void cplusplusterm() {
    std::printf("Global exception handler cplusplusterm called\n");
    std::fflush(stdout);
    reportUnaryAssertion(__FILE__, __LINE__, __func__, "cplusplusterm");
}

int rebootCommandHandler(int argc, char** argv, std::ostream& out) {
    if (argc == 2 && std::strncmp(argv[1], "confirm", 7) == 0) {
        out << "Performing a clean shutdown and reboot of the array\n";
        out.flush();
        std::printf("Calling safeReboot\n");
        std::fflush(stdout);
        SystemManager::GetInstance()->safeReboot("esa reboot command");
        return 0;
    }
    out << "Append the word \"confirm\" to reboot the array\n";
    return -1;
}

void DebugViewerMain() { ConsoleServer::GetInstance()->runOnStandardInput(); }

void handleNewBootStrap(bool clearDisk, bool debugInterface, bool redirectOutput, bool noOutput, bool formatOnStart,
                        bool clearButton) {
    bool pass = SystemManager::GetInstance()->Initialize(clearDisk, redirectOutput, noOutput, clearButton);
    if (!pass) {
        ESA_CONSOLE("SystemManager Initialize failed - rebooting");
        ESA_ASSERT(pass);
    }
    if (formatOnStart) {
        if (DiskPackManager::GetInstance()->availableDiskCount() == 0)
            EventLogManager::EventLog()->PostEvent(
                "STANDALONE: software cleardisk DISCARDED because no disks available to load");
        else
            EventLogManager::EventLog()->PostEvent("STANDALONE: diskpack cleared at software request");
    }
    // The board's target driver: hosts reach the LUNs over iSCSI on ESA_PORTAL.
    IscsiTargetConfig target = IscsiTargetConfig::fromEnvironment();
    if (TargetDriver::GetInstance().start(target).ok())
        std::printf("ESA: iSCSI target %s listening on %s (port %u)\n", target.targetName.c_str(),
                    target.portal.c_str(), unsigned(TargetDriver::GetInstance().port()));
    else
        std::printf("ESA: iSCSI target FAILED to start on %s\n", target.portal.c_str());
    std::fflush(stdout);
    // The console answers from here on: on its socket always, and on standard
    // input when that is a terminal (or when -d asked for the debug viewer).
    ConsoleServer::GetInstance()->start(!debugInterface && ::isatty(0));
    if (debugInterface) DebugViewerMain();
    taskPrioritySet(nullptr, 123);
    SystemManager::GetInstance()->DupFlashImage();
    for (;;) taskDelay(60 * sysClkRateGet());
}

int esaStandaloneMain(int argc, char** argv) {
    bool debugInterface = false, redirectOutput = true, noOutput = false, factoryReset = false;
    bool softwareClear = false, formatOnStart = false, clearButton = false, clearDisk = false;
    // 1.
    gProgramName = argv[0];
    int opt;
    opterr = 0;
    while ((opt = getopt(argc, argv, "cdfnrwCDFNRW")) != -1) {
        switch (opt) {
        case 'c': case 'C': softwareClear = true; break;
        case 'd': case 'D': debugInterface = true; break;
        case 'r': case 'R': redirectOutput = false; break;
        case 'n': case 'N': noOutput = true; break;
        case 'f': case 'F': factoryReset = true; break;
        case 'w': case 'W':
            std::printf("USE STANDANLONE WIPEDISK PROGRAM\n");
            return 0;
        default:
            std::fprintf(stderr,
                         "usage: %s [-c(leardisk) -d(ebugInterface) -r(edirect output disable) -n(o output) "
                         "-f(actroyReset) -w(ipe disks)\n",
                         gProgramName);
            return 1;
        }
    }
    if (optind < argc) {
        std::fprintf(stderr,
                     "usage: %s [-c(leardisk) -d(ebugInterface) -r(edirect output disable) -n(o output) "
                     "-f(actroyReset) -w(ipe disks)\n",
                     gProgramName);
        return 1;
    }
    Board::GetInstance().open();
    taskRegisterSelf("tEsaBoot", 100);
    // 2. The descriptor table size is the host's affair here.
    // 3.
    ::setenv("TZ", "/RFA/tzone", 1);
    FlashConfigData* flash = FlashConfigData::GetInstance();
    // 4.
    if (factoryReset) {
        ESA_CONSOLE("<=====================================> Performing Factory Reset");
        flash->DeleteConfigFile();
        softwareClear = true;
    }
    // 5.
    int marker = ::open(flashPath("/RFA/FormatOnStart").c_str(), O_RDONLY);
    if (marker >= 0) {
        ::close(marker);
        std::printf("FormatOnStart file exists.  Will do ClearDisk.\n");
        ::unlink(flashPath("/RFA/FormatOnStart").c_str());
        softwareClear = true;
        formatOnStart = true;
    }
    // 6.
    unsigned long demoMode = 0, clearDiskFlag = 0;
    flash->GetValueUint32(FlashConfigData::DemoMode, demoMode);
    std::printf("FlashConfigData: DemoMode = %lu\n", demoMode);
    flash->GetValueUint32(FlashConfigData::ClearDisk, clearDiskFlag);
    // 7.
    clearButton = GetStableDiskClearButtonStatus() != 0;
    std::printf("DISK_CLEAR button: %d\n", clearButton ? 1 : 0);
    // 8.
    if (clearButton) {
        std::printf("  Clearing any prior MaxLUN size from flash\n");
        flash->SetValueUint32(FlashConfigData::MaxLunSize, 0);
        clearDisk = true;
    } else if (softwareClear) {
        clearDisk = true;
    } else {
        clearDiskFlag = 0;
        flash->GetValueUint32(FlashConfigData::ClearDisk, clearDiskFlag);
        std::printf("FlashConfigData: ClearDisk = %lu\n", clearDiskFlag);
        if (clearDiskFlag != 0) {
            std::printf("ClearDisk flag is set in flash.  Will do ClearDisk automatically without button being "
                        "pressed!!!\n");
            clearDisk = true;
        }
    }
    // 9.
    std::set_terminate(cplusplusterm);
    std::printf("ClearDisk(final) = %d\n", clearDisk ? 1 : 0);
    std::fflush(stdout);
    // 10.
    handleNewBootStrap(clearDisk, debugInterface, redirectOutput, noOutput, formatOnStart, clearButton);
}
