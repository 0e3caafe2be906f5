// The MODE SENSE(10) pages of the management path: each fills one 1,024-byte
// block of "/mgmtpool" and sets the residual to what does not count.
#include <bit>
#include <cstring>
#include <ctime>

#include "background/DiskUtilizationDaemon.h"
#include "cat/catlookuptable/CATLookupTable.h"
#include "disk/DiskManager.h"
#include "disk/DiskPackManager.h"
#include "disk/DriveAdapter.h"
#include "disk/ErrorPolicy.h"
#include "host/ClientRequest.h"
#include "host/HRManager.h"
#include "include/DrivePackInfo.h"
#include "management/HAManager.h"
#include "management/SystemPolicy.h"
#include "platform/board/BoardServices.h"
#include "platform/rtos/BoardClock.h"
#include "system/FlashConfigData.h"
#include "system/SystemManager.h"
#include "util/Endian.h"
#include "util/IOTracker.h"
#include "util/Trace.h"
#include "zone/ZoneManager.h"

namespace {
constexpr uint8_t kRecordMark = 0x7A;

// The common head: mark, page, and the count of bytes after the length field.
void head(uint8_t* p, uint8_t page, uint16_t after) {
    p[0] = kRecordMark;
    p[1] = page;
    putBE16(p + 2, after);
}

uint32_t flashValue(const char* key, uint32_t fallback) {
    unsigned long v = 0;
    return FlashConfigData::GetInstance()->GetValueUint32(key, v).ok() ? uint32_t(v) : fallback;
}

// strncpy's rule: up to `size` bytes, no terminator when the text fills them.
void copyName(uint8_t* to, const char* from, size_t size) {
    const size_t n = strnlen(from, size);
    std::memcpy(to, from, n);
}
}  // namespace

StatusCode HAManager::GetConfigInfo(ClientRequest& r) {
    uint8_t* p = answerBlock(r, kBlockSize);
    const int platform = boardSyscall(BoardSyscall::ReadPlatformId);
    if (platform < 0) {
        ESA_CONSOLE("HAM: GetConfigInfo could not get our platform as syscall failed");
        return StatusCode::BadCommand;
    }
    head(p, 1, 0x0014);
    p[4] = 8;
    p[5] = uint8_t(platform);
    p[6] = uint8_t(CATLookupTable::GetInstance()->maxLuns());
    SystemDrivePackInfo* info = SystemDrivePackInfo::GetInstance();
    uint64_t lbas = mPackLoaded && info->isSet(SystemDrivePackInfo::MaxDefaultLBA)
                        ? info->get(SystemDrivePackInfo::MaxDefaultLBA) + 1 : 0;
    putBE64(p + 7, lbas);
    putBE32(p + 16, flashValue("demomode", 0));
    putBE32(p + 20, flashValue("scalefactor", 1));
    r.resid = kBlockSize - 24;
    return StatusCode::Success;
}

StatusCode HAManager::GetCapacityInfo(ClientRequest& r) {
    uint8_t* p = answerBlock(r, kBlockSize);
    head(p, 2, 0x20);
    uint64_t free = 0, used = 0, unprotected = 0;
    if (mPackLoaded && DiskUtilizationDaemon::GetInstance()->GetArrayCapacityInfo(free, used, unprotected).ok()) {
        putBE64(p + 4, free);
        putBE64(p + 12, used);
        putBE64(p + 20, free + used);
        putBE64(p + 28, unprotected);
    }
    r.resid = kBlockSize - 36;
    return StatusCode::Success;
}

StatusCode HAManager::GetSlotInfo(ClientRequest& r) {
    uint8_t* p = answerBlock(r, kBlockSize);
    head(p, 3, 0x0241);
    p[4] = 8;
    DiskManager* dm = DiskManager::GetInstance();
    DiskPackManager* dpm = DiskPackManager::GetInstance();
    unsigned char colours[8] = {};
    SystemPolicy::GetInstance()->GetSlotLEDColors(colours);
    // Errors the error policy holds for each slot.
    uint16_t errors[8] = {};
    for (const ErrorPolicy::PendingError& e : ErrorPolicy::GetInstance()->pendingErrors())
        if (e.slot < 8) ++errors[e.slot];
    for (unsigned slot = 0; slot < 8; ++slot) {
        uint8_t* rec = p + 5 + 72 * slot;
        putBE16(rec, 0x0046);
        rec[2] = uint8_t(slot);
        const bool present = dm->DriveIsPresent(int(slot));
        const DiskIdentifier* id = present ? dm->GetDiskWWN(int(slot)) : nullptr;
        if (present) putBE64(rec + 3, dm->GetDriveCapacity(int(slot)) * 512);
        bool flag;
        if (mPackLoaded) {
            uint16_t ld = 0;
            flag = dpm->getLdNum(uint16_t(slot), ld) == StatusCode::DiskNotPresent;
        } else {
            flag = !present;
        }
        rec[19] = uint8_t((colours[slot] & 0x7F) | (flag ? 0x80 : 0));
        if (id) {
            copyName(rec + 20, id->GetModelString().c_str(), 32);
            std::memcpy(rec + 52, rec + 20, 16);
        }
        putLE16(rec + 68, errors[slot]);
        rec[70] = present ? dm->GetCachedTemperature(int(slot)) : 0;
    }
    r.resid = kBlockSize - 581;
    return StatusCode::Success;
}

StatusCode HAManager::GetLunInfo(ClientRequest& r) {
    uint8_t* p = answerBlock(r, kBlockSize);
    head(p, 4, 0x0099);
    p[4] = uint8_t(HRManager::GetInstance()->currentMaxLun() + 1);
    uint64_t free = 0, used = 0, unprotected = 0;
    if (mPackLoaded) {
        DiskUtilizationDaemon::GetInstance()->GetArrayCapacityInfo(free, used, unprotected);
        putBE16(p + 5, 0x0011);
        putBE64(p + 8, free + used);
        putBE64(p + 16, used);
    }
    r.resid = kBlockSize - 157;
    return StatusCode::Success;
}

StatusCode HAManager::GetLunInfo2(ClientRequest& r) {
    uint8_t* p = answerBlock(r, kBlockSize);
    head(p, 4, 0x0131);
    p[4] = uint8_t(HRManager::GetInstance()->currentMaxLun() + 1);
    if (mPackLoaded) {
        CATLookupTable* clt = CATLookupTable::GetInstance();
        const uint32_t luns = clt->maxLuns();
        uint16_t nextId = 0;
        {
            // The next unique id is the same in every record.
            uint16_t highest = 0;
            for (uint32_t lun = 0; lun < luns; ++lun) {
                uint64_t last = 0;
                if (clt->getLunLastLba(lun, last).ok() && clt->lunUniqueId(lun) > highest) highest = clt->lunUniqueId(lun);
            }
            nextId = uint16_t(highest + 1);
        }
        for (uint32_t lun = 0; lun < luns && 5 + 19 * (lun + 1) <= kBlockSize; ++lun) {
            uint8_t* rec = p + 5 + 19 * lun;
            putBE16(rec, 0x0011);
            rec[2] = uint8_t(lun);
            uint64_t last = 0;
            const bool exists = clt->getLunLastLba(lun, last).ok();
            if (exists && last != 0) putBE64(rec + 3, (last + 1) * 512);
            // No partition or volume tracking yet: no scheme, no partitions,
            // and a used LUN counts as one with no volume found (code 1).
            rec[11] = 0;
            rec[12] = 0;
            rec[13] = exists && clt->HasLunBeenUsed(lun) && last != 0 ? 0x01 : 0x20;
            if (exists) putBE16(rec + 14, clt->lunUniqueId(lun));
            putBE16(rec + 16, nextId);
        }
    }
    r.resid = 0x2CB;
    return StatusCode::Success;
}

StatusCode HAManager::GetSystemInfo(ClientRequest& r) {
    uint8_t* p = answerBlock(r, kBlockSize);
    head(p, 5, 0x0026);
    putBE32(p + 4, uint32_t(BoardClock::GetInstance().realtime().tv_sec));  // the clock the host sets
    putBE16(p + 8, 0x0800);
    char name[33] = {};
    if (mPackLoaded) DiskPackManager::GetInstance()->getDiskPackName(name, sizeof name);
    copyName(p + 10, name[0] ? name : mDefaultName, 32);
    r.resid = kBlockSize - 42;
    return StatusCode::Success;
}

StatusCode HAManager::GetProtocolVersion(ClientRequest& r) {
    uint8_t* p = answerBlock(r, kBlockSize);
    head(p, 6, 2);
    p[4] = kProtocolMajor;
    p[5] = kProtocolMinor;
    r.resid = kBlockSize - 6;
    return StatusCode::Success;
}

StatusCode HAManager::GetFirmwareInfo(ClientRequest& r) {
    uint8_t* p = answerBlock(r, kBlockSize);
    head(p, 8, 0x0136);
    p[4] = 2;
    p[5] = 0x29;
    putBE16(p + 6, 0x6189);
    p[8] = 0x11;
    p[9] = 0x06;
    copyName(p + 10, SystemManager::GetInstance()->buildDate().c_str(), 32);
    std::memcpy(p + 42, "ArmMarvell      ", 16);
    copyName(p + 58, "1.1.4", 128);
    p[186] = 0x00;
    p[187] = 0x02;
    p[188] = 0xFD;
    p[189] = 0xFF;
    putBE32(p + 190, mDemoMode);
    putBE32(p + 194, mScaleFactor);
    r.resid = kBlockSize - 314;
    return StatusCode::Success;
}

StatusCode HAManager::GetStatusInfo(ClientRequest& r) {
    uint8_t* p = answerBlock(r, kBlockSize);
    head(p, 9, 0x0C);
    DiskPackManager* dpm = DiskPackManager::GetInstance();
    SystemManager* sm = SystemManager::GetInstance();
    const uint32_t wm = DiskUtilizationDaemon::GetInstance()->watermarkStatus();
    const int reason = mPackLoaded ? 0 : dpm->notLoadedReason();
    uint32_t status = 0x00008000;
    if (wm & 2) status |= 0x00000002;
    if (wm & 1) status |= 0x00000004;
    if (wm & 4) status |= 0x00000040;
    if (reason == 1) status |= 0x00000008;
    if (SystemPolicy::GetInstance()->AnyBadSlots()) status |= 0x00000010;
    if (reason == 5 || reason == 6 || reason == 7) status |= 0x00000020;
    if (mRebuilding) status |= 0x00000200;
    if (reason == 4) status |= 0x00000800;
    if (reason == 2) status |= 0x00001000;
    if (mFirmwareStaged) status |= 0x00002000;
    if (sm->lunConfigChanged()) status |= 0x00004000;
    if (!sm->previousShutdownClean()) status |= 0x00010000;
    if (mAutoLunCreate) status |= 0x00020000;
    if (reason == 8) status |= 0x00040000;
    if (reason == 3) status |= 0x10000000;
    putBE32(p + 4, status);
    uint64_t danger = 0;
    if (mRebuilding) {
        uint64_t degraded = 0, selfMirrored = 0;
        IOTracker tracker(READ_ONLY);
        if (!ZoneManager::GetInstance()->GetDegradedSelfMirroredCount(degraded, selfMirrored, tracker).ok())
            degraded = selfMirrored = 0;
        danger = std::popcount(dpm->presentLogicalDisks()) < 2 ? degraded : degraded + selfMirrored;
    }
    putBE32(p + 8, uint32_t(danger));
    putBE32(p + 12, uint32_t(dpm->notLoadedReason()));
    r.resid = kBlockSize - 16;
    return StatusCode::Success;
}

StatusCode HAManager::GetDiskPackInfo(ClientRequest& r) {
    uint8_t* p = answerBlock(r, kBlockSize);
    head(p, 0x11, 0x01C9);
    p[4] = 8;
    DiskManager* dm = DiskManager::GetInstance();
    DiskPackManager* dpm = DiskPackManager::GetInstance();
    for (unsigned slot = 0; slot < 8; ++slot) {
        uint8_t* rec = p + 5 + 57 * slot;
        putBE16(rec, 0x0039);
        uint8_t flags = 0;
        if (!dm->DriveIsPresent(int(slot))) {
            flags |= 0x80;
        } else {
            // The DIS as it stands on the disk now in the slot, whatever the pack state.
            DIS::LogicalDiskContainer* container = nullptr;
            DIS* dis = dpm->discoverDis(uint16_t(slot), container);
            if (dis == nullptr) {
                flags |= 0x20;
                delete container;
            } else {
                putBE32(rec + 3, dis->packId.word[0]);
                putBE32(rec + 7, dis->packId.word[1]);
                putBE32(rec + 11, dis->generation);
                copyName(rec + 15, dis->nameString().c_str(), 32);
                if (container->reason() != DIS::kNotExpunged) flags |= 0x40;
                // The container went into the record when it has a logical disk number.
                if (container->ldNumber >= DiskPackManager::maxLogicalDisks) delete container;
                delete dis;
            }
            putBE64(rec + 47, dm->GetDriveCapacity(int(slot)));
        }
        rec[2] = uint8_t(slot | flags);
    }
    // That many empty slots are drawn as the pack's absent members.
    unsigned missing = mPackLoaded ? dpm->getNumberOfMissingDisks() : 0;
    for (unsigned slot = 0; slot < 8 && missing > 0; ++slot) {
        uint8_t* rec = p + 5 + 57 * slot;
        if (rec[2] & 0x80) {
            rec[2] |= 0x10;
            --missing;
        }
    }
    r.resid = 0x233;
    return StatusCode::Success;
}

StatusCode HAManager::GetOptions(ClientRequest& r) {
    uint8_t* p = answerBlock(r, kBlockSize);
    r.resid = 0x3F3;
    if (!mPackLoaded) return StatusCode::Success;  // all 13 bytes 0, the head included
    p[0] = kRecordMark;
    p[1] = 0x30;
    putLE16(p + 2, 0x0009);
    DiskUtilizationDaemon* dud = DiskUtilizationDaemon::GetInstance();
    const uint32_t low = dud->lowWatermark(), high = dud->highWatermark();
    p[4] = uint8_t(low / 100);
    p[5] = uint8_t(high / 100);
    p[6] = ZoneManager::GetInstance()->zoneTable().UseSelfMirrored() ? 0x40 : 0;
    p[11] = uint8_t(low % 100);
    p[12] = uint8_t(high % 100);
    return StatusCode::Success;
}

StatusCode HAManager::GetOptions2(ClientRequest& r) {
    uint8_t* p = answerBlock(r, 0x200);
    r.resid = 0;
    if (!mPackLoaded) return StatusCode::Success;  // all 512 bytes 0
    p[0] = kRecordMark;
    p[1] = 0x31;
    putLE16(p + 2, 0x01FC);
    uint64_t flags = 0;
    if (ZoneManager::GetInstance()->zoneTable().DualRedundancyMode()) flags |= 1;
    if (mTimeToStandby > 0) flags |= 2;
    if (!mAutoLunCreate) flags |= 4;
    putBE16(p + 12, uint16_t((mTimeToStandby + 59) / 60));
    StatusCode status = StatusCode::Success;
    int fd = boardOpen("/networkinfo", 2);
    if (fd < 0) {
        ESA_CONSOLE("GetOptions2 Exit: Unable to open /networkinfo");
        status = StatusCode::InternalError;
    } else {
        NetworkInfoRecord net{};
        int rc = boardIoctl(fd, NetworkInfoIoctl::Read, intptr_t(&net));
        if (rc < 0) {
            ESA_CONSOLE("GetOptions2 Exit: Ioctl failed with error: " << rc);
            status = StatusCode::InternalError;
        } else {
            if (net.useDefault == 0) flags |= 8;
            putBE32(p + 14, net.address);
            putBE32(p + 18, net.subnet);
        }
        boardClose(fd);
    }
    putBE64(p + 4, flags);
    return status;
}

StatusCode HAManager::DiskOp(ClientRequest& r, uint8_t page, uint8_t slot) {
    uint8_t* p = answerBlock(r, kBlockSize);
    head(p, page, 4);
    r.resid = 0x3F8;
    if (slot > 7 || !mPackLoaded) {
        p[4] = 1;
        return StatusCode::Success;
    }
    p[4] = SlotPowerSwitch(int(slot), page == 0xE1) == 0 ? 0 : 2;
    return StatusCode::Success;
}
