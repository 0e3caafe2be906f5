#include "system/SystemManager.h"

#include <cstring>
#include <sstream>

#include "disk/DiskManager.h"
#include "host/USBTransport.h"
#include "management/EventLogManager.h"
#include "management/SystemPolicy.h"
#include "platform/board/Board.h"
#include "platform/board/BoardServices.h"
#include "platform/rtos/Rtos.h"
#include "util/Assert.h"
#include "util/BuildInfo.h"
#include "util/Diagnostics.h"
#include "util/Trace.h"
#include "background/DiskUtilizationDaemon.h"
#include "zone/LayoutManager.h"

Trace smErrorTrace("systemmanager", "error", "flow", true);
Trace smVrbhTrace("systemmanager", "vrbh", "flow", false);

SystemManager* SystemManager::GetInstance() {
    static SystemManager instance;
    return &instance;
}

SystemManager::SystemManager() {
    mSpare.reserve(80);
    mEsaRegisterFd = boardOpen("/ESA_REGISTER", 2);
}

void SystemManager::resetForTest() {
    mPackLoaded = false;
    mReadOnlyLoaded = false;
    mPreviousShutdownClean = true;
    mLedCount = 10;
    mFilled = 0;
    mPosition = 0;
    mCheckpointStamped = false;
    mSystemState = 0;
    mNoHost = false;
}

void SystemManager::bootCheckpoint(std::string what, bool reset) {
    if (reset) {
        mLedCount = 10;
        mFilled = 0;
        mPosition = 0;
        ESA_CONSOLE(what);
        boardIoctl(mEsaRegisterFd, EsaRegisterIoctl::LedBar, 0x3ff0000);
        return;
    }
    if (mLedCount == 0) {
        ESA_TRACE(smVrbhTrace, "Too many boot checkpoints called. " << "\tWhat = [" << what);
        return;
    }
    if (mPackLoaded) {
        ESA_TRACE(smVrbhTrace, "Boot checkpoint called after pack load");
        return;
    }
    mPosition += 1;
    uint64_t minStep = uint64_t(sysClkRateGet() / 3);
    if (!mCheckpointStamped) {
        mCheckpointStamp = tick64Get();
        mCheckpointStamped = true;
    }
    if (mLedCount == 10) {
        // The first pass stays visible: each step shows for a third of a second at least.
        uint64_t now = tick64Get();
        if (now < mCheckpointStamp + minStep) taskDelay(int(mCheckpointStamp + minStep - now));
        mCheckpointStamp = tick64Get();
    }
    if (mPosition > mLedCount) {
        mLedCount -= 1;
        mFilled |= 1u << mLedCount;
        mPosition = 1;
    }
    uint32_t pattern = (mFilled + 0x3ff0000u) | (1u << (mPosition - 1));
    std::string bar;
    for (int bit = 0; bit < 10; ++bit) bar += (pattern >> bit) & 1 ? '*' : '.';
    ESA_CONSOLE(what << "\t[" << bar << "]");
    boardIoctl(mEsaRegisterFd, EsaRegisterIoctl::LedBar, intptr_t(pattern));
}

void SystemManager::ReportFeatures() {
    static const char* kBoard[] = {"Transport fathpath code ENABLED", "Diagnostics log code ENABLED",
                                   "TDFeaturelib code ENABLED", "Flash image code ENABLED"};
    static const char* kSettled[] = {
        "Custom Windview events disabled", "Reduced Region Size feature disabled",
        "Cluster Scavenger feature ENABLED", "J1 disk flushing feature disabled",
        "Reduced Thresholds feature disabled", "Striping feature ENABLED",
        "Stats Gathering feature disabled", "Capacity Console Display feature disabled",
        "Read-after-write verify feature disabled", "Verify redundancy after writes feature disabled",
        "Always Zero Init new Zones feature disabled", "Async ClusterManager bitmap parsing feature ENABLED",
        "Extending lock support feature ENABLED", "Lock heirarchy enforcement feature disabled",
        "One I/O at a time feature is disabled", "Diags bypass locks feature is ENABLED",
        "J2 parallel spill feature is ENABLED", "J2 journal is fully ENABLED",
        "J2 journal is using DMA from NVRAM", "J2 journal is using OPTIMISED spill",
        "J2 journal is running in PSRAM", "J1 <=4K packets copied to PSRAM disabled",
        "J1 replay tagging is ENABLED", "HRM is dropping HLBAT locks",
        "ZoneManager MirrorOnly Zone pool is disabled", "ZoneManager prefer Mirrored Zones is disabled",
        "Parallel Disk IOs are ENABLED", "ZoneManager Mirrored3 Metadata Zones is disabled",
        "ErrorInjection is ENABLED", "System standby is ENABLED",
        "Event log recording ENABLED", "Data Compactor disabled",
        "SMART monitoring ENABLED", "SMART testing disabled",
        "Data Scrubber ENABLED", "Data Scrubber scrubbing METADATA and USERDATA",
        "Calendar Server ENABLED", "Auto format LUNs as FAT32 disabled",
        "PSRAM battery will POWER OFF in standby", "Spin on bad J2 signature is disabled",
        "Scheduler watchdog is ENABLED", "Scheduler watchdog monitor is disabled",
        "Lock duration monitor is disabled", "64-bit Cache support",
        "64-bit Host LBA support", "On-Proc monitor is ENABLED",
        "ReadAhead ZM queuing is ENABLED", "ClientRequest diags contexts are disabled",
        "Multi I/O issue transport is ENABLED", "Use of Dual Disk Redundancy by default is disabled",
        "Prefer diagonal parity for recovery is disabled", "Use of Zone Patching is ENABLED",
        "Use of DRStripe relayout readahead is ENABLED", "Defragmenter is ENABLED"};
    ESA_CONSOLE("Displaying enabled board features:");
    for (const char* line : kBoard) ESA_CONSOLE(line);
    ESA_CONSOLE("Max drives supported : " << 8);
    ESA_CONSOLE("End of board feature output");
    for (const char* line : kSettled) ESA_CONSOLE(line);
    ESA_CONSOLE("RTP Heap usage tripwire set at " << 0x3c00000 << " bytes");
    ESA_CONSOLE("Write journal support ENABLED with " << 10 << " writer threads and " << 6 << " reader threads");
    ESA_CONSOLE("Readahead support enabled with support for " << 5 << " streams");
    ESA_CONSOLE("Write coalescing min request set to " << 1024 << "KiB");
}

void SystemManager::ReportDate() {
    ESA_CONSOLE("TARVOPRO PLATFORM SOFTWARE BUILD");
    ESA_CONSOLE("Build Date/Time: " << mBuildDate);
    ESA_CONSOLE("Version Number: " << mVersion);
}

void SystemManager::ReportDateAndFeatures() {
    mBuildDate = BuildInfo::buildDate();
    mVersion = BuildInfo::version();
    ReportDate();
    ReportFeatures();
}

void SystemManager::GetLastRebootReason(char* buffer, unsigned length) {
    char reason[257] = {};
    boardSyscall(BoardSyscall::ReadRebootReason, intptr_t(reason), 256);
    if (length == 0) return;
    std::strncpy(buffer, reason, length - 1);
    buffer[length - 1] = '\0';
}

void SystemManager::SetLastRebootReason(const char* reason) {
    char buf[256] = {};
    std::strncpy(buf, reason, sizeof buf - 1);
    boardSyscall(BoardSyscall::WriteRebootReason, intptr_t(buf));
}

void SystemManager::AddDisk(unsigned short slot, unsigned short logicalDisk) {
    EventLogManager::EventLog()->PostEvent("SM: add physical disk " + std::to_string(slot) + " (logical disk " +
                                           std::to_string(logicalDisk) + ")");
    DiskUtilizationDaemon::GetInstance()->PostEventCapacity();
    LayoutManager::GetInstance()->InitiateAddDisk(logicalDisk);
    SystemPolicy::GetInstance()->DiskMounted(slot);
}

void SystemManager::ExpungeDisk(unsigned short slot, unsigned short logicalDisk) {
    SystemPolicy::GetInstance()->ExpungeDisk(slot);
    EventLogManager::EventLog()->PostEvent("SM: expunge physical disk " + std::to_string(slot) + " (logical disk " +
                                           std::to_string(logicalDisk) + ")");
    DiskUtilizationDaemon::GetInstance()->PostEventCapacity();
    LayoutManager::GetInstance()->InitiateRemoveDisk(logicalDisk);
}

void SystemManager::RemoveDisk(unsigned short slot, unsigned short logicalDisk) {
    SystemPolicy::GetInstance()->RemoveDisk(slot);
    EventLogManager::EventLog()->PostEvent("SM: remove physical disk " + std::to_string(slot) + " (logical disk " +
                                           std::to_string(logicalDisk) + ")");
    DiskUtilizationDaemon::GetInstance()->PostEventCapacity();
    LayoutManager::GetInstance()->InitiateRemoveDisk(logicalDisk);
}

void SystemManager::nonViableDiskPack(std::string reporter) {
    Reboot(("Loaded diskpack has become non-viable. Reporter is " + reporter).c_str());
}

void SystemManager::safeReboot(const char* reason) {
    ESA_CONSOLE("SAFE REBOOT OF ESA INITIATED ... disabling transports");
    USBTransport::GetInstance()->transportEnable(false);
    ESA_CONSOLE("... forcing standby");
    // Standby, until the power Part replaces it: an orderly unload of the pack.
    {
        ReentrantLockObject::LockInstance g(&rStandbyLock);
        if (mPackLoaded) UnloadDiskPack();
    }
    ESA_CONSOLE("REBOOTING ... see you on the other side ... ");
    Reboot(reason);
}

void SystemManager::Reboot(const char* reason) {
    taskPrioritySet(nullptr, 90);
    ESA_CONSOLE("System reboot initiated by RTP, rebootReason='" << reason << "'");
    SetLastRebootReason(reason);
    DiskManager::GetInstance()->FlushAllDisksBypassQueue();
    int fd = boardOpen("diagLog0", 2);
    if (fd >= 0) {
        boardIoctl(fd, DiagLogIoctl::Flush, 0);
        boardClose(fd);
    }
    boardSyscall(BoardSyscall::Restart);
    reportUnaryAssertion(__FILE__, __LINE__, __func__, "Reboot returned");
}

void SystemManager::DupFlashImage() { boardIoctl(mEsaRegisterFd, EsaRegisterIoctl::DuplicateFlashImage, 0); }

namespace {
void dumpSystemManager(std::ostream& out) {
    SystemManager* sm = SystemManager::GetInstance();
    out << "SystemManager: packLoaded=" << sm->packLoaded() << " readOnly=" << sm->readOnly()
        << " hostReadOnly=" << sm->hostReadOnly() << " noHost=" << sm->noHost()
        << " allowBgThreads=" << sm->allowBgThreads() << " systemState=" << sm->systemState()
        << " previousShutdownClean=" << sm->previousShutdownClean() << " maxLuns=" << sm->maxLuns() << "\n";
}
DiagnosticHandler gSystemManagerDiagnostics(dumpSystemManager, "SystemManager", 10);
}  // namespace
