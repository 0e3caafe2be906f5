// The MODE SELECT(10) pages: thresholds and the unprotected-space switch
// (0x30), redundancy, spindown, volume management and the network address
// (0x31), and the host's clock and pack name (5).
#include <cstring>
#include <string>

#include "background/DiskUtilizationDaemon.h"
#include "disk/DiskPackManager.h"
#include "management/HAManager.h"
#include "platform/board/BoardServices.h"
#include "platform/rtos/BoardClock.h"
#include "platform/rtos/Rtos.h"
#include "system/CalServ.h"
#include "system/FlashConfigData.h"
#include "system/SystemManager.h"
#include "util/Endian.h"
#include "util/Trace.h"
#include "zone/ZoneManager.h"

namespace {
// The records the host sends are the answer's layout; each must be whole.
constexpr uint32_t kOptionsLength = 13, kOptions2Length = 22, kSystemInfoLength = 42;

std::string dottedQuad(uint32_t a) {
    return std::to_string(a >> 24) + "." + std::to_string(a >> 16 & 0xFF) + "." + std::to_string(a >> 8 & 0xFF) +
           "." + std::to_string(a & 0xFF);
}
}  // namespace

StatusCode HAManager::SetOptions(const uint8_t* d, uint32_t length) {
    if (d == nullptr || length < kOptionsLength) {
        ESA_CONSOLE("HAM: SetOptions record of " << length << " bytes is short, nothing changed");
        return StatusCode::BadCommand;
    }
    DiskUtilizationDaemon* dud = DiskUtilizationDaemon::GetInstance();
    // Whole percent, and hundredths unless those are 100 or more.
    if (d[4] >= 1 && d[4] <= 99) dud->setLowWatermark(d[4] * 100u + (d[11] < 100 ? d[11] : 0));
    if (d[5] >= 1 && d[5] <= 100) dud->setHighWatermark(d[5] * 100u + (d[12] < 100 ? d[12] : 0));
    if (d[6] & 0xC0) {
        ESA_CONSOLE("HAM: Use of unprotected space being enabled");
        if (mPackLoaded) ZoneManager::GetInstance()->zoneTable().SetUseSelfmirrored(true);
    }
    return StatusCode::Success;
}

StatusCode HAManager::SetOptions2(const uint8_t* d, uint32_t length) {
    if (d == nullptr || length < kOptions2Length) {
        ESA_CONSOLE("HAM: SetOptions2 record of " << length << " bytes is short, nothing changed");
        return StatusCode::BadCommand;
    }
    const uint32_t flags = getBE32(d + 8);
    StatusCode status = StatusCode::Success;
    // 1 to 3: the network address.
    int fd = boardOpen("/networkinfo", 2);
    if (fd < 0) {
        ESA_CONSOLE("SetOptions2 Exit: Unable to open /networkinfo");
        status = StatusCode::InternalError;
    } else {
        NetworkInfoRecord now{}, old{};
        now.useDefault = (flags & 8) ? 0 : 1;
        now.address = getBE32(d + 14);
        now.subnet = getBE32(d + 18);
        int rc = boardIoctl(fd, NetworkInfoIoctl::Read, intptr_t(&old));
        if (rc < 0) {
            ESA_CONSOLE("SetOptions2 Exit: Ioctl to get net info failed with error: " << rc);
            status = StatusCode::InternalError;
        } else if ((rc = boardIoctl(fd, NetworkInfoIoctl::WriteNow, intptr_t(&now))) < 0) {
            ESA_CONSOLE("SetOptions2 Exit: Ioctl to set net info failed with error: " << rc);
            status = StatusCode::InternalError;
        } else {
            if (now.useDefault) postEvent("HAM: Setting iSCSI to use Default IP address and Subnet");
            else postEvent("HAM: Setting iSCSI Network IP address to " + std::to_string(now.address) + ", Subnet to " +
                           std::to_string(now.subnet));
            ESA_CONSOLE("HAM: network " << dottedQuad(now.address) << "/" << dottedQuad(now.subnet));
            FlashConfigData* flash = FlashConfigData::GetInstance();
            flash->SetValueUint32("netconfigusedefault", now.useDefault);
            flash->SetValueUint32("netconfigipaddr", now.address);
            flash->SetValueUint32("netconfigsubnet", now.subnet);
            // The change takes effect through a restart at the next loss of the transports.
            if (now.useDefault != old.useDefault || now.address != old.address || now.subnet != old.subnet)
                mPendingReboot = true;
        }
        boardClose(fd);
    }
    // 4.
    if (!mPackLoaded) {
        ESA_CONSOLE("SetOptions2 Exit: DiskPackNotLoaded");
        return StatusCode::DiskPackNotLoaded;
    }
    // 5. Dual redundancy.
    ZoneTable& table = ZoneManager::GetInstance()->zoneTable();
    const bool dual = (flags & 1) != 0;
    if (dual != table.DualRedundancyMode()) {
        postEvent(std::string("HAM: Use of Dual Disk Redundancy is being ") + (dual ? "enabled" : "disabled"));
        table.SetDualRedundancyMode(dual);
    }
    // 6. Spindown.
    const uint32_t minutes = getBE16(d + 12);
    const uint32_t seconds = (flags & 2) ? minutes * 60 : 0;
    if (seconds != mTimeToStandby) {
        if (seconds == 0) postEvent("HAM: Disk idle spindown is being disabled");
        else postEvent("HAM: Disk idle spindown time is being changed to " + std::to_string(minutes) + " minutes");
        SetSpindownTime(seconds);
    }
    // 7. Manual volume management.
    const bool autoLun = !(flags & 4);
    if (autoLun != mAutoLunCreate) {
        postEvent(std::string("HAM: Manual Volume Management is being ") + (autoLun ? "disabled" : "enabled"));
        mAutoLunCreate = autoLun;
        saveState();
    }
    return status;
}

StatusCode HAManager::SetSystemInfo(const uint8_t* d, uint32_t length) {
    if (d == nullptr || length < kSystemInfoLength) {
        ESA_CONSOLE("HAM: SetSystemInfo record of " << length << " bytes is short, nothing changed");
        return StatusCode::BadCommand;
    }
    const uint32_t time = getBE32(d + 4);
    mGmtOffset = int16_t(getBE16(d + 8));
    // 1. The clock holds local time.
    BoardClock& clock = BoardClock::GetInstance();
    const long before = long(clock.realtime().tv_sec);
    const long value = long(time) + long(mGmtOffset) * 60;
    timespec ts{};
    ts.tv_sec = value;
    clock.setRealtime(ts);
    CalServ::GetInstance()->updateTime(value, true);
    // 2.
    const long moved = value - before;
    if (moved > 3000 || moved < -3000 || mFirstTimeSet) {
        const uint64_t uptime = tickGet() / uint32_t(sysClkRateGet());
        char zone[48];
        std::snprintf(zone, sizeof zone, "%s%dh%dm", mGmtOffset >= 0 ? "+" : "", mGmtOffset / 60, mGmtOffset % 60);
        postEvent("HAM: ESA Time set by host at uptime: " + std::to_string(uptime) + ". TimeZone is (GMT " + zone +
                  ") ");
        mFirstTimeSet = false;
    }
    // 3.
    if (boardSyscall(BoardSyscall::SetHardwareClock, intptr_t(value)) < 0) ESA_CONSOLE("Failed to set hardware RTC time\n");
    // 4. The pack name.
    if (mPackLoaded) {
        char name[33] = {}, wanted[33] = {};
        DiskPackManager* dpm = DiskPackManager::GetInstance();
        dpm->getDiskPackName(name, sizeof name);
        std::memcpy(wanted, d + 10, 32);
        if (std::strncmp(name, wanted, 32) != 0) {
            StatusCode s = dpm->setDiskPackName(wanted);
            if (!s.ok()) ESA_CONSOLE("SetSystemInfo: Failed to set pack name [" << wanted << "] " << s.Dump());
        }
    }
    return StatusCode::Success;
}
