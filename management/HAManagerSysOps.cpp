// The vendor command 0xEA, 0x10: system operations that change the appliance.
// The operation code is byte 3 of the command block, its data the second
// block of the request's store, big-endian. Anything slow goes to a timer so
// that the response still leaves.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <deque>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "background/DiskUtilizationDaemon.h"
#include "cat/catlookuptable/CATLookupTable.h"
#include "disk/DiskManager.h"
#include "host/ClientRequest.h"
#include "host/HRManager.h"
#include "include/DrivePackInfo.h"
#include "management/HAManager.h"
#include "management/EventLogManager.h"
#include "management/LEDMan.h"
#include "management/SystemPolicy.h"
#include "platform/board/BoardServices.h"
#include "platform/flash/Flash.h"
#include "platform/rtos/RtosTimer.h"
#include "system/FlashConfigData.h"
#include "system/SystemManager.h"
#include "util/DataBuffer.h"
#include "util/Endian.h"
#include "util/SharedMemoryPool.h"
#include "util/Trace.h"
#include "zone/Zone0InfoTable.h"
#include "zone/ZoneManager.h"

namespace {
enum SysOp : uint8_t {
    ESA_SYSOPID_SHUTDOWN_ESA = 0x01, ESA_SYSOPID_FORMAT_ESA = 0x02, ESA_SYSOPID_SHUTDOWN_ESA_2 = 0x03,
    ESA_SYSOPID_UPLOAD_DIAGS = 0x04, ESA_SYSOPID_CRASH_ESA = 0x05, ESA_SYSOPID_IDENTIFY_ESA = 0x06,
    ESA_SYSOPID_DO_ESA_LOCKEDDIAGS = 0x07, ESA_SYSOPID_SET_CAPACITY_LEDS = 0x08, ESA_SYSOPID_SET_FLASHCONFIG = 0x09,
    ESA_SYSOPID_RUN_ESA_COMMAND = 0x0A, ESA_SYSOPID_SET_USED_CAPACITY = 0x0B, ESA_SYSOPID_FORMAT_FILE_SYSTEM = 0x0C,
    ESA_SYSOPID_STANDBY_ESA = 0x0D, ESA_SYSOPID_GET_FORMAT_CMD_STATUS = 0x0E, ESA_SYSOPID_RESIZE_LUNS = 0x0F,
    ESA_SYSOPID_PARTITION_FORMAT_ESA = 0x10, ESA_SYSOPID_CLEAR_BAD_SHUTDOWN = 0x11, ESA_SYSOPID_CREATE_LUN = 0x12,
    ESA_SYSOPID_DELETE_LUN = 0x13, ESA_SYSOPID_AUTO_LUN_CREATE = 0x14, ESA_SYSOPID_ACCESS_GUI_DATA_READ = 0x15,
    ESA_SYSOPID_ACCESS_GUI_DATA_WRITE = 0x16, ESA_SYSOPID_POWER_OFF_ESA = 0x17, ESA_SYSOPID_INSTALL_FIRMWARE = 0x70,
    ESA_SYSOPID_GET_FIRMWARE_STATUS = 0x71,
};

// The number behind `key` in a NUL-terminated text, read with "%ld".
bool keyValue(const char* text, const char* key, long& value, bool& parsed) {
    const char* at = std::strstr(text, key);
    if (at == nullptr) return false;
    parsed = std::sscanf(at + std::strlen(key), "%ld", &value) == 1;
    return true;
}

bool createFormatOnStart() {
    int fd = ::open(flashPath("/RFA/FormatOnStart").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return false;
    ::close(fd);
    return true;
}
}  // namespace

void HAManager::scheduleOperation(int ticks, void (*handler)(HAManager*)) {
    if (!mRebootTimer) mRebootTimer = std::make_unique<RtosTimer>("tHAMtimer", 117);
    mTimerHandler = handler;
    mRebootTimer->connect([this] { if (mTimerHandler) mTimerHandler(this); });
    mRebootTimer->settime(uint64_t(ticks) * uint32_t(sysClkRateGet()), 0);
}

void HAManager::Reboot(HAManager*) { SystemManager::GetInstance()->safeReboot("HAM initiated reboot"); }

void HAManager::ClearDiskReboot(HAManager*) { SystemManager::GetInstance()->safeReboot("Software initiated cleardisk"); }

StatusCode HAManager::systemOperation(ClientRequest& r, const uint8_t* command) {
    uint32_t length = 0;
    const uint8_t* data = dataBlock(r, length);
    const uint8_t op = command[3];
    // Operations that carry data need all of it; a short one changes nothing.
    auto need = [&](uint32_t bytes) {
        if (data != nullptr && length >= bytes) return true;
        ESA_CONSOLE("HAM: system operation 0x" << std::hex << unsigned(op) << std::dec << " needs " << bytes
                                               << " bytes of data, got " << length);
        return false;
    };
    FlashConfigData* flash = FlashConfigData::GetInstance();
    switch (op) {
    case ESA_SYSOPID_SHUTDOWN_ESA:
    case ESA_SYSOPID_SHUTDOWN_ESA_2:
        scheduleOperation(1, Reboot);
        return StatusCode::Success;
    case ESA_SYSOPID_FORMAT_ESA:
        flash->DeleteConfigFile();
        flash->SetValueUint32("netclearconfig", 1);
        if (!DiskManager::GetInstance()->GetDiskWWNMap().empty()) {
            if (!createFormatOnStart()) std::printf("ESA_SYSOPID_FORMAT_ESA: Creation of file /RFA/FormatOnStart failed\n");
            scheduleOperation(1, ClearDiskReboot);
        } else {
            ESA_CONSOLE("ESA_SYSOPID_FORMAT_ESA: no disks, just clearing flash.");
            scheduleOperation(1, Reboot);
        }
        return StatusCode::Success;
    case ESA_SYSOPID_CRASH_ESA:
        ESA_CONSOLE("HAM: ESA_SYSOPID_CRASH_ESA received");
        return StatusCode::Success;
    case ESA_SYSOPID_IDENTIFY_ESA:
        SystemPolicy::GetInstance()->postMessage(SystemPolicy::kIdentify, 1);
        return StatusCode::Success;
    case ESA_SYSOPID_SET_CAPACITY_LEDS: {
        if (!need(2)) return StatusCode::BadCommand;
        const uint16_t value = getBE16(data);
        // Night mode (special-purpose bit 0x20) is not kept yet: the bar is drawn as given.
        const uint32_t pattern = 0x3FF0000u | (value & 0x3FFu);
        DiskUtilizationDaemon::GetInstance()->StopManagingCapacityLEDs();
        LEDMan::GetInstance()->LedBar(pattern);
        return StatusCode::Success;
    }
    case ESA_SYSOPID_SET_FLASHCONFIG: {
        if (!need(1)) return StatusCode::BadCommand;
        std::string text(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), length));
        StatusCode status = StatusCode::Success;
        long value = 0;
        bool parsed = false;
        if (keyValue(text.c_str(), "allowhostcommand", value, parsed)) {
            int button = 0;
            if (mEsaRegisterFd >= 0) boardIoctl(mEsaRegisterFd, 0x5444001D, intptr_t(&button));
            if (!parsed) {
                ESA_CONSOLE("HAM: Error reading FlashConfig value.");
                status = StatusCode::InternalError;
            } else if (button == 0) {
                ESA_CONSOLE("HAM: Error.  Button not pressed, FlashConfig change not effective.");
            } else {
                flash->SetValueUint32("allowhostcommand", (unsigned long)value);
            }
        }
        if (keyValue(text.c_str(), "demomode", value, parsed)) {
            if (!parsed || (value != 0 && value != 1)) {
                ESA_CONSOLE("Wrong DemoMode value: " << value);
            } else {
                flash->SetValueUint32("demomode", (unsigned long)value);
                mDemoMode = uint32_t(value);
                long scale = 300;
                bool scaleParsed = false;
                if (value == 1) {
                    if (!keyValue(text.c_str(), "scalefactor", scale, scaleParsed) || !scaleParsed) scale = 300;
                    flash->SetValueUint32("scalefactor", (unsigned long)scale);
                    flash->SetValueUint32("cleardisk", 1);
                } else {
                    scale = 1;
                    flash->SetValueUint32("scalefactor", 1);
                    flash->SetValueUint32("cleardisk", 0);
                }
                mScaleFactor = uint32_t(scale);
            }
        }
        if (keyValue(text.c_str(), "encryptdiag", value, parsed)) {
            if (!parsed || (value != 0 && value != 1)) {
                ESA_CONSOLE("Wrong encryptDiag value: " << value);
            } else {
                flash->SetValueUint32("encryptdiag", (unsigned long)value);
                mEncryptDiag = value == 1;
            }
        }
        return status;
    }
    case ESA_SYSOPID_RUN_ESA_COMMAND: {
        unsigned long allowed = 0;
        flash->GetValueUint32("allowhostcommand", allowed);
        if (allowed == 0) {
            ESA_CONSOLE("HAM: Error: Host command not allowed.");
            return StatusCode::Success;
        }
        return StatusCode::FunctionNotImplemented;  // the diagnostics proxy is not built yet
    }
    case ESA_SYSOPID_DO_ESA_LOCKEDDIAGS:
        return lockedDiagnostics(r, command);
    case ESA_SYSOPID_UPLOAD_DIAGS:
    case ESA_SYSOPID_INSTALL_FIRMWARE:
    case ESA_SYSOPID_GET_FIRMWARE_STATUS:
        ESA_CONSOLE("HAM: system operation 0x" << std::hex << unsigned(op) << std::dec << " not available yet");
        return StatusCode::FunctionNotImplemented;
    case ESA_SYSOPID_SET_USED_CAPACITY: {
        if (!need(12)) return StatusCode::BadCommand;
        // No partition or volume tracking yet: the host's view is always taken.
        ESA_CONSOLE("HAM: Use host view of used capacity.");
        DiskUtilizationDaemon* dud = DiskUtilizationDaemon::GetInstance();
        dud->SetUsedCapacityHost(getBE64(data));
        dud->WakeDUD();
        return StatusCode::Success;
    }
    case ESA_SYSOPID_FORMAT_FILE_SYSTEM: {
        if (!need(8)) return StatusCode::BadCommand;
        const uint32_t formatType = getBE32(data);
        if (formatType != 0) {
            ESA_CONSOLE("HAM: unsuported formatType " << formatType);
            return StatusCode::FunctionNotImplemented;
        }
        ESA_CONSOLE("HAM: the FAT32 format job is not available yet");
        return StatusCode::FunctionNotImplemented;
    }
    case ESA_SYSOPID_PARTITION_FORMAT_ESA:
        if (!need(12)) return StatusCode::BadCommand;
        ESA_CONSOLE("HAM: lun = " << getBE32(data) << ", partitionType = " << getBE32(data + 4)
                                  << ", formatType = " << getBE32(data + 8) << ", Label = (not read)");
        return StatusCode::FunctionNotImplemented;
    case ESA_SYSOPID_STANDBY_ESA:
        ESA_CONSOLE("HAM:  Host requested to suspend ESA.");
        mPendingTransportReset = true;
        return StatusCode::Success;
    case ESA_SYSOPID_GET_FORMAT_CMD_STATUS: {
        uint8_t* p = answerBlock(r, kBlockSize);
        putBE32(p, 0);  // no format job has run: done
        r.resid = 0x3FC;
        return StatusCode::Success;
    }
    case ESA_SYSOPID_RESIZE_LUNS: {
        if (!need(4)) return StatusCode::BadCommand;
        const uint32_t wanted = getBE32(data);
        unsigned long old = 0;
        flash->GetValueUint32("maxlunsize", old);
        SystemDrivePackInfo* info = SystemDrivePackInfo::GetInstance();
        const uint64_t pack = info->isSet(SystemDrivePackInfo::MaxDefaultLBA)
                                  ? (info->get(SystemDrivePackInfo::MaxDefaultLBA) + 0x7FFFFFFFull) >> 31 : 0;
        if (wanted == old && wanted == pack) {
            postEvent("HostAppManager: resize LUNs from " + std::to_string(old) + "TiB to " + std::to_string(wanted) +
                      "TiB ignored because no change was required!");
            return StatusCode::Success;
        }
        const bool ddr = mPackLoaded && ZoneManager::GetInstance()->zoneTable().DualRedundancyMode();
        if (ddr) ESA_CONSOLE("Saving DDR enabled state over the reformat cleardisk");
        flash->SetValueUint32("ddrmode", ddr ? 1 : 0);
        flash->SetValueUint32("maxlunsize", wanted);
        createFormatOnStart();
        if (wanted == pack) {
            postEvent("HostAppManager:: resize LUNs to " + std::to_string(wanted) + "TiB: Flash value updated from " +
                      std::to_string(old) + " TiB, but no reboot needed as diskpack correct!");
        } else {
            postEvent("HostAppManager: resizing LUNs from " + std::to_string(old) + "TiB to " + std::to_string(wanted) +
                      "TiB and rebooting!");
            scheduleOperation(1, Reboot);
        }
        return StatusCode::Success;
    }
    case ESA_SYSOPID_CLEAR_BAD_SHUTDOWN:
        SystemManager::GetInstance()->clearBadShutdown();
        return StatusCode::Success;
    case ESA_SYSOPID_CREATE_LUN: {
        if (!need(10)) return StatusCode::BadCommand;
        const uint64_t size = getBE64(data);
        // A LUN smaller than one sector has no last LBA.
        if (size < 512) {
            ESA_CONSOLE("HAM: create LUN of " << size << " bytes refused");
            return StatusCode::BadCommand;
        }
        StatusCode s = HRManager::GetInstance()->createLunDeferred(size / 512 - 1);
        if (s.ok() && data[9] != 0) mPendingTransportReset = true;
        return s;
    }
    case ESA_SYSOPID_DELETE_LUN: {
        if (!need(4)) return StatusCode::BadCommand;
        StatusCode s = HRManager::GetInstance()->deleteLun(data[2], getBE16(data));
        if (s.ok() && data[3] != 0) mPendingTransportReset = true;
        return s;
    }
    case ESA_SYSOPID_AUTO_LUN_CREATE:
        if (!need(4)) return StatusCode::BadCommand;
        mAutoLunCreate = getBE32(data) != 0;
        saveState();
        return StatusCode::Success;
    case ESA_SYSOPID_ACCESS_GUI_DATA_READ:
        return accessGuiData(r, command, false);
    case ESA_SYSOPID_ACCESS_GUI_DATA_WRITE:
        return accessGuiData(r, command, true);
    case ESA_SYSOPID_POWER_OFF_ESA:
        ESA_CONSOLE("HAM:  Host requested to power off ESA.");
        mPendingPowerOff = true;
        return StatusCode::Success;
    default:
        return StatusCode::Success;  // no effect
    }
}

// The host application's private store: numSecs sectors behind the state
// sector. Start sector in command byte 9, count in byte 7 / 2.
StatusCode HAManager::accessGuiData(ClientRequest& r, const uint8_t* command, bool write) {
    StatusCode s = openZone0();
    if (!s.ok()) return s;
    const uint32_t start = command[9], count = command[7] / 2u;
    if (start + count > mNumSecs) {
        ESA_CONSOLE("HAM: GUI access past end of allocated space, start = " << start << ", num sectors = " << count);
        return StatusCode::BadCommand;
    }
    Zone0InfoTable* z0 = Zone0InfoTable::GetInstance();
    const uint32_t end = 512 + (start + count) * 512;
    std::vector<uint8_t> area(end, 0);
    if (count == 0) {
        r.resid = 0;
        return StatusCode::Success;
    }
    if (!(s = z0->ReadArea(kZone0Entry, area.data(), end)).ok()) return s;
    if (write) {
        uint32_t length = 0;
        const uint8_t* data = dataBlock(r, length);
        if (data == nullptr || length < count * 512) {
            ESA_CONSOLE("HAM: GUI write of " << count << " sectors with " << length << " bytes of data refused");
            return StatusCode::BadCommand;
        }
        std::memcpy(area.data() + 512 + start * 512, data, count * 512);
        return z0->WriteArea(kZone0Entry, area.data(), end);
    }
    // Read: count / 2 blocks of the pool (an odd count rounds up).
    const uint32_t blocks = (count + 1) / 2;
    DataStore* store = mMgmtPool->GetBlocks(blocks);
    DataWindow window;
    window.InitializeAndTransferStore(*store, 0, blocks * kBlockSize);
    std::vector<uint8_t> out(blocks * kBlockSize, 0);
    std::memcpy(out.data(), area.data() + 512 + start * 512, count * 512);
    window.Write(DataBuffer{uint32_t(out.size()), out.data()}, 0, uint32_t(out.size()));
    r.window = window;
    r.resid = 0;
    return StatusCode::Success;
}

// The locked diagnostics stream, served in the host's blocks: the buffers
// come from the allocation length in command bytes 7 and 8, (length + 1024)
// / 1024 - 1 of them, at most 32. A short answer ends the stream; when the
// end falls on a block boundary the next answer is empty. The bytes are
// scrambled while encryptdiag is on. A new stream starts after an end.
StatusCode HAManager::lockedDiagnostics(ClientRequest& r, const uint8_t* command) {
    static constexpr uint32_t kSeed = 0x5B7C2E41;
    const uint32_t length = getBE16(command + 7);
    uint32_t buffers = (length + 1024) / 1024;
    buffers = buffers > 0 ? buffers - 1 : 0;
    if (buffers > 32) buffers = 32;
    if (buffers == 0) {
        ESA_CONSOLE("HAM: locked diagnostics need an allocation length of 1,024 bytes or more, got " << length);
        return StatusCode::BadCommand;
    }
    if (!mDiagActive) {
        std::string s = "-------------------- LOCKED DIAGS -----------------------\n"
                        "----------------------- EVENT LOG -----------------------\n";
        if (EventLogManager* log = EventLogManager::EventLog()) {
            std::deque<std::string> lines = log->events();
            size_t first = lines.size() > 200 ? lines.size() - 200 : 0;
            for (size_t i = first; i < lines.size(); ++i) s += lines[i] + "\n";
        }
        s += "------------------- EVENT LOG END -----------------------\n"
             "------------------- LOCKED DIAGS END --------------------\n";
        mDiagStream = std::move(s);
        mDiagPosition = 0;
        mDiagGenerator = kSeed;
        mDiagActive = true;
        mDiagSendEmpty = false;
    }
    const uint32_t room = buffers * kBlockSize;
    const size_t left = mDiagStream.size() - mDiagPosition;
    const uint32_t sent = uint32_t(std::min<size_t>(left, room));
    DataStore* store = mMgmtPool->GetBlocks(buffers);
    DataWindow window;
    window.InitializeAndTransferStore(*store, 0, room);
    std::vector<uint8_t> out(room, 0);
    for (uint32_t i = 0; i < sent; ++i) {
        uint8_t b = uint8_t(mDiagStream[mDiagPosition + i]);
        if (mEncryptDiag) {
            mDiagGenerator = mDiagGenerator * 0x19660D + 0x3C6EF35F;
            b ^= uint8_t(mDiagGenerator);
        }
        out[i] = b;
    }
    window.Write(DataBuffer{room, out.data()}, 0, room);
    r.window = window;
    r.resid = room - sent;
    mDiagPosition += sent;
    if (mDiagSendEmpty) {
        mDiagActive = mDiagSendEmpty = false;  // this was the empty answer
    } else if (mDiagPosition == mDiagStream.size()) {
        if (sent == room) {
            ESA_CONSOLE("Data end at buffer boundary.  Arrange to send an empty buffer.");
            mDiagSendEmpty = true;
        } else {
            mDiagActive = false;
            ESA_CONSOLE("HAM: ESA_SYSOPID_DO_ESA_LOCKEDDIAGS done.");
        }
    }
    return StatusCode::Success;
}
