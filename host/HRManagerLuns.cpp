// HRManager: the LUN table the host sees, its Zone 0 record, and the pack
// load and unload of the host side.
//
// Sizes: every "size" the LUN table handles (the default size, createLun's
// argument, the pending creates of the record, what the transport is told)
// is the LUN's last LBA, as the pack's default size is; a LUN of size s has
// s + 1 sectors.
#include <cstdio>
#include <cstring>
#include <sstream>

#include "cat/CATManager.h"
#include "cat/catlookuptable/CATLookupTable.h"
#include "host/HRManager.h"
#include "host/HrmZone0Record.h"
#include "host/USBTransport.h"
#include "include/DrivePackInfo.h"
#include "journal/j2/J2Manager.h"
#include "management/EventLogManager.h"
#include "system/SystemManager.h"
#include "util/Assert.h"
#include "util/Trace.h"
#include "zone/Zone0InfoTable.h"

namespace {
Trace tHrmLun("Host", "HRMLun", "Info", false);

void postEvent(const std::string& text) {
    ESA_TRACE(tHrmLun, text);
    if (EventLogManager* log = EventLogManager::EventLog()) log->PostEvent(text);
}

// The size in the largest unit that keeps it at or above 1 ("1.5 TiB").
std::string readableSectors(uint64_t sectors) {
    static const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
    double v = double(sectors) * 512.0;
    int u = 0;
    while (v >= 1024.0 && u < 5) {
        v /= 1024.0;
        ++u;
    }
    char buf[48];
    std::snprintf(buf, sizeof buf, "%.1f %s", v, units[u]);
    return buf;
}

// The pack's default LUN size (last LBA). The map sets it at its load; a map
// that has not set it gives the size a default-sized LUN has on a new pack.
uint64_t defaultLunSize() {
    SystemDrivePackInfo* info = SystemDrivePackInfo::GetInstance();
    if (info->isSet(SystemDrivePackInfo::MaxDefaultLBA)) return info->get(SystemDrivePackInfo::MaxDefaultLBA);
    return 0xFFFFFF77ull;
}

uint32_t maxLunsOfSystem() { return uint32_t(SystemManager::GetInstance()->maxLuns()); }
}  // namespace

uint64_t HRManager::adjustLunSize(uint64_t size) {
    if (size == 0) size = defaultLunSize();
    if ((size >= 0x7fffff79ull && size <= 0x7fffffffull) || (size >= 0xffffff79ull && size <= 0xffffffffull))
        size -= 0x88;
    return size;
}

StatusCode HRManager::readRecord(uint8_t* block, bool& present) {
    Zone0InfoTable* z0 = Zone0InfoTable::GetInstance();
    present = z0->entryValid(kZone0Entry, kZone0Name, kZone0Version);
    std::memset(block, 0, HrmZone0Record::kBlockBytes);
    if (!present) return StatusCode::Success;
    return z0->ReadArea(kZone0Entry, block, HrmZone0Record::kBlockBytes);
}

StatusCode HRManager::writeRecord(const uint8_t* block) {
    return Zone0InfoTable::GetInstance()->WriteArea(kZone0Entry, block, HrmZone0Record::kBlockBytes);
}

StatusCode HRManager::pushLunsToTransport() {
    USBTransport* usb = USBTransport::GetInstance();
    CATLookupTable* clt = CATLookupTable::GetInstance();
    for (uint32_t lun = 0; lun <= maxLun; ++lun) {
        uint64_t lastLba = 0;
        if (clt->getLunLastLba(lun, lastLba) != StatusCode::Success) continue;  // a gap left by a delete
        if (usb->setMaxLun(uint8_t(lun), lastLba) != StatusCode::Success)
            std::printf("HRM::LDP: Failed to create LUN %u...continuing\n", lun);
    }
    return StatusCode::Success;
}

StatusCode HRManager::LoadDiskPack() {
    HrmZone0Record rec;
    bool present = false;
    StatusCode s = readRecord(rec.bytes, present);
    if (s != StatusCode::Success) {
        std::printf("HRManager::LoadDiskPack: Error reading maxLun from Z0IT\n");
        return s;
    }
    if (present) {
        maxLun = rec.maxLun();
        if (rec.signed_() && rec.pendingCount() > 0) {
            unsigned n = std::min<unsigned>(rec.pendingCount(), HrmZone0Record::kMaxPending);
            ESA_CONSOLE("HRM::LDP: There are " << n << " pending LUN creates");
            clearPendingLunCreates();
            for (unsigned i = 0; i < n; ++i) {
                createLun(rec.pendingSize(i), false);
                J2Manager::GetInstance()->forceFlush(false);
            }
        }
    } else {
        // A new pack: the default LUN.
        uint64_t size = adjustLunSize(0);
        IOTracker iot(READ_WRITE);
        uint32_t lun = 0;
        s = CATLookupTable::GetInstance()->createLun(lun, size, iot);
        if (s != StatusCode::Success) {
            std::printf("HRM::LDP: Can't create default LUN!\n");
            iot.commit();
            return s;
        }
        maxLun = uint8_t(lun);
        saveMaxLun(iot);
        iot.commit();
    }
    pushLunsToTransport();
    // An earlier version wrote the GPT header over the MBR of a 16 TiB LUN.
    // The corrective patch needs the auto-format path, which does not exist
    // yet: such a LUN is reported, not patched.
    for (uint32_t lun = 0; lun <= maxLun; ++lun) {
        uint64_t lastLba = 0;
        if (CATLookupTable::GetInstance()->getLunLastLba(lun, lastLba) != StatusCode::Success) continue;
        if (lastLba != 0x7ffffffffull) continue;
        HostRequest probe;
        ClientRequest& r = probe.mRequest;
        r.flags = ClientRequest::kRead | ClientRequest::kCache;
        r.lun = lun;
        r.lba = 0;
        r.len = r.origLen = 1;
        if (CATManager::GetInstance()->ReadData(r) != StatusCode::Success || r.window.GetLength() < 8) continue;
        uint8_t head[8];
        DataBuffer b{8, head};
        r.window.Read(b, 0, 8);
        r.window.clear();
        if (std::memcmp(head, "EFI PART", 8) != 0) continue;
        postEvent("HRM::LDP: applying GPT corrective patch to MBR of LUN #" + std::to_string(lun));
        postEvent("HRM::LDP: GPT corrective patch FAILED on LUN #" + std::to_string(lun));
    }
    CATLookupTable::GetInstance()->EnsureLUNsInit(maxLun);
    drivePackReady = USBTransport::GetInstance()->mediaAccess(true) == StatusCode::Success;
    linkUp = true;
    // ScavengerTicker::HostLinkHasComeUp: the scavenger does not watch the link yet.
    return StatusCode::Success;
}

StatusCode HRManager::UnloadDiskPack() {
    drivePackReady = false;
    linkUp = false;
    USBTransport::GetInstance()->mediaAccess(false);
    return StatusCode::Success;
}

StatusCode HRManager::saveMaxLun(IOTracker& tracker) {
    Zone0InfoTable* z0 = Zone0InfoTable::GetInstance();
    HrmZone0Record rec;
    bool present = false;
    if (!z0->entryValid(kZone0Entry, kZone0Name, kZone0Version)) {
        StatusCode s = z0->CreateEntry(kZone0Entry, kZone0Version, kZone0Size, kZone0Name, tracker);
        if (s != StatusCode::Success) return s;
        // A new entry: the LUN number in hand stays the highest (a create that
        // made the entry has already set it).
    } else {
        StatusCode s = readRecord(rec.bytes, present);  // keeps the pending part of the block
        if (s != StatusCode::Success) return s;
    }
    rec.setMaxLun(maxLun);
    rec.sign();
    StatusCode s = writeRecord(rec.bytes);
    if (s != StatusCode::Success) z0->EraseEntry(kZone0Entry, tracker);
    return s;
}

StatusCode HRManager::clearPendingLunCreates() {
    Zone0InfoTable* z0 = Zone0InfoTable::GetInstance();
    if (!z0->entryValid(kZone0Entry, kZone0Name, kZone0Version)) {
        ESA_CONSOLE("HRM::clearPendingLunCreates: no Zone 0 entry " << kZone0Entry);
        return StatusCode::CorruptedZone0Entry;
    }
    HrmZone0Record rec;
    rec.setMaxLun(maxLun);
    rec.sign();
    rec.clearPending();
    return writeRecord(rec.bytes);
}

StatusCode HRManager::createLun(unsigned long long size, bool keep) {
    (void)keep;  // callers pass false; nothing here depends on it
    size = adjustLunSize(size);
    if (size > kMaxLunSectors) {
        std::printf("HRM::createLun: Requested LUN too big = 0x%.16llx\n", size);
        return StatusCode::InternalError;
    }
    IOTracker iot(READ_WRITE);
    uint32_t newLun = 0;
    StatusCode s = CATLookupTable::GetInstance()->createLun(newLun, size, iot);
    if (s != StatusCode::Success) {
        ESA_CONSOLE("HRM::createLun: failed by CAT with status " << s);
        iot.commit();
        return s;
    }
    if (newLun > maxLun) {
        ESA_ASSERT_OP(newLun, <, maxLunsOfSystem());
        maxLun = uint8_t(newLun);
        saveMaxLun(iot);
        USBTransport::GetInstance()->setMaxLun(uint8_t(newLun), size);
    } else {
        USBTransport::GetInstance()->setMaxLba(uint8_t(newLun), size);
    }
    iot.commit();
    postEvent("HRM:createLun: created LUN #" + std::to_string(newLun) + " at " + readableSectors(size + 1));
    CATLookupTable::GetInstance()->EnsureLUNsInit(maxLun);
    return StatusCode::Success;
}

StatusCode HRManager::createLunDeferred(unsigned long long size) {
    if (size == 0) size = adjustLunSize(0);
    if (size > kMaxLunSectors) {
        std::printf("HRM::createLunDeferred: Requested LUN too big = 0x%.16llx\n", size);
        return StatusCode::InternalError;
    }
    Zone0InfoTable* z0 = Zone0InfoTable::GetInstance();
    if (!z0->entryValid(kZone0Entry, kZone0Name, kZone0Version)) {
        StatusCode s = z0->CreateEntry(kZone0Entry, kZone0Version, kZone0Size, kZone0Name);
        if (s != StatusCode::Success) return s;
        maxLun = 0;
    } else if (!drivePackReady) {
        return StatusCode::InternalError;
    }
    HrmZone0Record rec;
    bool present = false;
    StatusCode s = readRecord(rec.bytes, present);
    if (s != StatusCode::Success) return s;
    if (!rec.signed_()) rec.clearPending();
    if (rec.pendingCount() >= HrmZone0Record::kMaxPending) return StatusCode::NoMoreLuns;
    rec.setMaxLun(maxLun);
    rec.sign();
    rec.setPendingSize(rec.pendingCount(), size);
    rec.setPendingCount(uint8_t(rec.pendingCount() + 1));
    s = writeRecord(rec.bytes);
    if (s == StatusCode::Success) {
        if (drivePackReady) SystemManager::GetInstance()->setLunConfigChanged();
        postEvent("HRM:createLunDeferred: pending " + readableSectors(size + 1));
    }
    return s;
}

StatusCode HRManager::deleteLun(unsigned long lun, unsigned short key) {
    CATLookupTable* clt = CATLookupTable::GetInstance();
    StatusCode s = clt->deleteLun(uint32_t(lun), key);
    if (s != StatusCode::Success) return s;
    USBTransport::GetInstance()->removeLun(uint8_t(lun));
    if (lun == maxLun && lun != 0) {
        uint64_t lastLba = 0;
        do {
            --maxLun;
        } while (maxLun > 0 && clt->getLunLastLba(maxLun, lastLba) != StatusCode::Success);
        ESA_ASSERT_OP(uint32_t(maxLun), <, maxLunsOfSystem());
        IOTracker iot(READ_WRITE);
        saveMaxLun(iot);
        iot.commit();
        USBTransport::GetInstance()->setLunCount(uint32_t(maxLun) + 1);
    }
    if (drivePackReady) SystemManager::GetInstance()->setLunConfigChanged();
    return StatusCode::Success;
}
