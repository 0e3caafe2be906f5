#include "platform/target/ScsiResponder.h"

#include <algorithm>
#include <cstring>

#include "platform/target/IscsiPdu.h"
#include "platform/target/TargetLunTable.h"

namespace scsi {
namespace {

using iscsi::getBe16;
using iscsi::getBe32;
using iscsi::getBe64;
using iscsi::putBe16;
using iscsi::putBe32;
using iscsi::putBe64;

Decision check(const Sense& s) {
    Decision d;
    d.kind = Decision::Kind::Check;
    d.status = kStatusCheckCondition;
    d.sense = s;
    return d;
}

Decision answer(std::vector<uint8_t> data, size_t allocationLength) {
    Decision d;
    d.kind = Decision::Kind::Answered;
    if (data.size() > allocationLength) data.resize(allocationLength);
    d.data = std::move(data);
    return d;
}

void putPadded(uint8_t* dst, const std::string& s, size_t width) {
    std::memset(dst, ' ', width);
    std::memcpy(dst, s.data(), std::min(width, s.size()));
}

// The control byte's NACA bit and the vendor bits of the flags byte are not
// supported: a CDB carrying them is refused.
bool nacaSet(const uint8_t* cdb, size_t len) { return (cdb[len - 1] & 0x04) != 0; }

// Mode pages, in the layout of their page code.
std::vector<uint8_t> cachingPage(bool changeable) {
    std::vector<uint8_t> p(20, 0);
    p[0] = 0x08;
    p[1] = 0x12;
    if (!changeable) p[2] = 0x04;  // WCE: writes are acknowledged once in battery-backed memory
    return p;
}
std::vector<uint8_t> controlPage(bool changeable) {
    std::vector<uint8_t> p(12, 0);
    p[0] = 0x0a;
    p[1] = 0x0a;
    if (!changeable) {
        p[3] = 0x10;  // unrestricted reordering
        p[8] = 0xff;  // busy timeout: unlimited
        p[9] = 0xff;
    }
    return p;
}
std::vector<uint8_t> informationalExceptionsPage(bool) {
    std::vector<uint8_t> p(12, 0);
    p[0] = 0x1c;
    p[1] = 0x0a;
    return p;
}

}  // namespace

size_t ScsiResponder::cdbLengthFor(uint8_t opcode) {
    switch (opcode >> 5) {
    case 0: return 6;
    case 1: case 2: return 10;
    case 4: return 16;
    case 5: return 12;
    case 7: return opcode == kVendorManagement ? 16 : 0;
    default: return 0;
    }
}

std::string ScsiResponder::lunSerial(uint32_t lun) const {
    return TargetLunTable::GetInstance().serialNumber() + "-" + std::to_string(lun);
}

Decision ScsiResponder::decide(const uint8_t* cdb, size_t cdbLength, uint32_t lun) const {
    uint8_t op = cdb[0];
    size_t need = cdbLengthFor(op);
    if (need == 0 || cdbLength < need) return check(kInvalidOpcode);
    if (nacaSet(cdb, need)) return check(kInvalidFieldInCdb);

    TargetLunTable& table = TargetLunTable::GetInstance();
    // INQUIRY and REPORT LUNS answer for any LUN; REQUEST SENSE reports the missing LUN.
    if (op == kInquiry) return inquiry(cdb, lun);
    if (op == kReportLuns) return reportLuns(cdb);
    if (op == kRequestSense) return requestSense(cdb, lun);

    uint64_t lastLba = table.lastLba(lun);
    // Management commands reach the system whatever the LUN: the host
    // application must reach an appliance that has no pack and no LUNs.
    if (op == kModeSense10 || op == kModeSelect10 || op == kVendorManagement) {
        Decision d;
        d.kind = Decision::Kind::Management;
        return d;
    }
    if (lastLba == TargetLunTable::kAbsent) return check(kLunNotSupported);

    switch (op) {
    case kTestUnitReady:
        if (!table.mediaAccess()) return check(kMediumNotPresent);
        return answer({}, 0);
    case kModeSense6:
        return modeSense6(cdb, lastLba);
    case kReadCapacity10:
        return readCapacity10(cdb, lastLba);
    case kServiceActionIn16:
        if ((cdb[1] & 0x1f) != kReadCapacity16ServiceAction) return check(kInvalidFieldInCdb);
        return readCapacity16(cdb, lastLba);
    case kStartStopUnit:
        // The LUNs cannot be stopped or ejected; any power condition is accepted and ignored.
        return answer({}, 0);
    case kPreventAllow:
        if ((cdb[4] & 0x03) > 1) return check(kInvalidFieldInCdb);  // only the medium changer forms
        return answer({}, 0);
    case kRead6: case kRead10: case kRead12: case kRead16:
    case kWrite6: case kWrite10: case kWrite12: case kWrite16:
        if (!table.mediaAccess()) return check(kMediumNotPresent);
        return dataCommand(cdb, lastLba);
    case kSyncCache10: case kSyncCache16:
        if (!table.mediaAccess()) return check(kMediumNotPresent);
        return syncCache(cdb, lastLba);
    default:
        return check(kInvalidOpcode);
    }
}

Decision ScsiResponder::inquiry(const uint8_t* cdb, uint32_t lun) const {
    bool evpd = (cdb[1] & 0x01) != 0;
    if ((cdb[1] & 0xfe) != 0) return check(kInvalidFieldInCdb);  // CMDDT and reserved bits
    uint8_t page = cdb[2];
    size_t alloc = getBe16(cdb + 3);
    bool present = TargetLunTable::GetInstance().lunPresent(lun);
    uint8_t peripheral = present ? 0x00 : 0x7f;  // direct access block device, or no LUN here

    if (!evpd) {
        if (page != 0) return check(kInvalidFieldInCdb);
        std::vector<uint8_t> d(66, 0);
        d[0] = peripheral;
        d[2] = 0x06;  // SPC-4
        d[3] = 0x12;  // HiSup, response data format 2
        d[4] = uint8_t(d.size() - 5);
        d[7] = 0x02;  // command queuing
        putPadded(&d[8], "ESA", 8);
        putPadded(&d[16], "ESA Array", 16);
        putPadded(&d[32], "0100", 4);
        // Version descriptors: SAM-5, iSCSI, SPC-4, SBC-3.
        const uint16_t versions[] = {0x00a0, 0x0960, 0x0460, 0x04c0};
        for (size_t i = 0; i < 4; ++i) putBe16(&d[58 + 2 * i], versions[i]);
        return answer(std::move(d), alloc);
    }
    if (!present) return check(kLunNotSupported);
    std::vector<uint8_t> body;
    switch (page) {
    case 0x00:
        body = {0x00, 0x80, 0x83, 0xb0};
        break;
    case 0x80: {
        std::string serial = lunSerial(lun);
        body.assign(serial.begin(), serial.end());
        break;
    }
    case 0x83:
        body = deviceIdentification(lun);
        break;
    case 0xb0:
        body.assign(60, 0);
        putBe16(&body[2], 8);                    // optimal granularity: one 4 KiB cluster
        putBe32(&body[4], kMaxTransferBlocks);   // maximum transfer length
        putBe32(&body[8], kMaxRequestBlocks);    // optimal transfer length: one request of the system
        break;
    default:
        return check(kInvalidFieldInCdb);
    }
    std::vector<uint8_t> d(4 + body.size(), 0);
    d[0] = peripheral;
    d[1] = page;
    std::memcpy(d.data() + 4, body.data(), body.size());
    putBe16(&d[2], uint16_t(d.size() - 4));
    return answer(std::move(d), alloc);
}

std::vector<uint8_t> ScsiResponder::deviceIdentification(uint32_t lun) const {
    std::vector<uint8_t> out;
    // NAA locally assigned (type 3, binary): a 60-bit hash of serial number and LUN.
    std::string serial = TargetLunTable::GetInstance().serialNumber();
    uint64_t h = 1469598103934665603ull;
    for (char c : serial) h = (h ^ uint8_t(c)) * 1099511628211ull;
    h = (h ^ lun) * 1099511628211ull;
    uint8_t naa[12] = {0x01, 0x03, 0x00, 0x08};
    putBe64(naa + 4, (uint64_t(3) << 60) | (h & 0x0fffffffffffffffull));
    out.insert(out.end(), std::begin(naa), std::end(naa));
    // T10 vendor identification (type 1, ASCII): vendor, then the LUN's serial number.
    std::string t10 = "ESA     " + lunSerial(lun);
    uint8_t head[4] = {0x02, 0x01, 0x00, uint8_t(t10.size())};
    out.insert(out.end(), std::begin(head), std::end(head));
    out.insert(out.end(), t10.begin(), t10.end());
    // SCSI name string of the target device (type 8, UTF-8, association 2), padded to 4.
    std::string name = mTargetName;
    name.resize(iscsi::padTo4(uint32_t(name.size() + 1)), '\0');
    uint8_t nhead[4] = {0x03, 0x28, 0x00, uint8_t(name.size())};
    out.insert(out.end(), std::begin(nhead), std::end(nhead));
    out.insert(out.end(), name.begin(), name.end());
    return out;
}

Decision ScsiResponder::modeSense6(const uint8_t* cdb, uint64_t lastLba) const {
    bool dbd = (cdb[1] & 0x08) != 0;
    if ((cdb[1] & 0xf7) != 0) return check(kInvalidFieldInCdb);
    uint8_t pc = cdb[2] >> 6;
    uint8_t page = cdb[2] & 0x3f;
    uint8_t subpage = cdb[3];
    size_t alloc = cdb[4];
    if (pc == 3) return check(kSavingNotSupported);
    bool changeable = pc == 1;

    std::vector<uint8_t> pages;
    auto add = [&](const std::vector<uint8_t>& p) { pages.insert(pages.end(), p.begin(), p.end()); };
    if (page == 0x3f) {
        if (subpage != 0 && subpage != 0xff) return check(kInvalidFieldInCdb);
        add(cachingPage(changeable));
        add(controlPage(changeable));
        add(informationalExceptionsPage(changeable));
    } else {
        if (subpage != 0) return check(kInvalidFieldInCdb);
        switch (page) {
        case 0x08: add(cachingPage(changeable)); break;
        case 0x0a: add(controlPage(changeable)); break;
        case 0x1c: add(informationalExceptionsPage(changeable)); break;
        default: return check(kInvalidFieldInCdb);
        }
    }
    std::vector<uint8_t> d(4, 0);
    d[2] = 0x10;  // DPOFUA
    if (!dbd) {
        d[3] = 8;
        uint8_t desc[8] = {};
        uint64_t blocks = lastLba + 1;
        iscsi::putBe32(desc, blocks > 0xffffff ? 0xffffffu : uint32_t(blocks));
        desc[0] = 0;  // density code
        iscsi::putBe32(desc + 4, kBlockSize);
        desc[4] = 0;
        d.insert(d.end(), std::begin(desc), std::end(desc));
    }
    d.insert(d.end(), pages.begin(), pages.end());
    d[0] = uint8_t(std::min<size_t>(d.size() - 1, 255));
    return answer(std::move(d), alloc);
}

Decision ScsiResponder::readCapacity10(const uint8_t* cdb, uint64_t lastLba) const {
    bool pmi = (cdb[8] & 0x01) != 0;
    if (!pmi && getBe32(cdb + 2) != 0) return check(kInvalidFieldInCdb);
    std::vector<uint8_t> d(8, 0);
    putBe32(&d[0], lastLba > 0xfffffffeull ? 0xffffffffu : uint32_t(lastLba));
    putBe32(&d[4], kBlockSize);
    return answer(std::move(d), 8);
}

Decision ScsiResponder::readCapacity16(const uint8_t* cdb, uint64_t lastLba) const {
    size_t alloc = getBe32(cdb + 10);
    bool pmi = (cdb[14] & 0x01) != 0;
    if (!pmi && getBe64(cdb + 2) != 0) return check(kInvalidFieldInCdb);
    std::vector<uint8_t> d(32, 0);
    putBe64(&d[0], lastLba);
    putBe32(&d[8], kBlockSize);
    d[13] = 3;  // eight logical blocks per physical block: the 4 KiB cluster
    return answer(std::move(d), alloc);
}

Decision ScsiResponder::reportLuns(const uint8_t* cdb) const {
    uint8_t select = cdb[2];
    size_t alloc = getBe32(cdb + 6);
    if (select > 2) return check(kInvalidFieldInCdb);
    if (alloc < 16) return check(kInvalidFieldInCdb);
    TargetLunTable& table = TargetLunTable::GetInstance();
    std::vector<uint8_t> d(8, 0);
    for (uint32_t lun = 0; lun < TargetLunTable::kMaxLuns; ++lun) {
        if (!table.lunPresent(lun)) continue;
        uint8_t entry[8];
        iscsi::encodeLun(lun, entry);
        d.insert(d.end(), std::begin(entry), std::end(entry));
    }
    putBe32(&d[0], uint32_t(d.size() - 8));
    return answer(std::move(d), alloc);
}

Decision ScsiResponder::requestSense(const uint8_t* cdb, uint32_t lun) const {
    if ((cdb[1] & 0x01) != 0) return check(kInvalidFieldInCdb);  // descriptor format is not supported
    size_t alloc = cdb[4];
    TargetLunTable& table = TargetLunTable::GetInstance();
    // Sense goes back with each failing command, so nothing is ever pending:
    // report the state a command would meet now.
    Sense s;
    if (!table.lunPresent(lun)) s = kLunNotSupported;
    else if (!table.mediaAccess()) s = kMediumNotPresent;
    return answer(fixedSenseData(s), alloc);
}

Decision ScsiResponder::dataCommand(const uint8_t* cdb, uint64_t lastLba) const {
    uint8_t op = cdb[0];
    bool write = op == kWrite6 || op == kWrite10 || op == kWrite12 || op == kWrite16;
    uint64_t lba = 0;
    uint32_t blocks = 0;
    bool fua = false;
    switch (op) {
    case kRead6: case kWrite6:
        lba = ((uint32_t(cdb[1]) & 0x1f) << 16) | getBe16(cdb + 2);
        blocks = cdb[4] == 0 ? 256 : cdb[4];
        break;
    case kRead10: case kWrite10:
        lba = getBe32(cdb + 2);
        blocks = getBe16(cdb + 7);
        break;
    case kRead12: case kWrite12:
        lba = getBe32(cdb + 2);
        blocks = getBe32(cdb + 6);
        break;
    default:
        lba = getBe64(cdb + 2);
        blocks = getBe32(cdb + 10);
        break;
    }
    if (op != kRead6 && op != kWrite6) {
        // Protection information is not supported: RDPROTECT/WRPROTECT must be zero.
        if ((cdb[1] & 0xe0) != 0) return check(kInvalidFieldInCdb);
        fua = (cdb[1] & 0x08) != 0;
    }
    if (lba > lastLba || uint64_t(blocks) > lastLba + 1 - lba) return check(kLbaOutOfRange);
    if (blocks > kMaxTransferBlocks) return check(kInvalidFieldInCdb);
    Decision d;
    d.kind = write ? Decision::Kind::Write : Decision::Kind::Read;
    d.lba = lba;
    d.blocks = blocks;
    d.fua = fua;
    return d;
}

Decision ScsiResponder::syncCache(const uint8_t* cdb, uint64_t lastLba) const {
    uint64_t lba = cdb[0] == kSyncCache10 ? getBe32(cdb + 2) : getBe64(cdb + 2);
    uint32_t blocks = cdb[0] == kSyncCache10 ? getBe16(cdb + 7) : getBe32(cdb + 10);
    if (lba > lastLba || uint64_t(blocks) > lastLba + 1 - lba) return check(kLbaOutOfRange);
    Decision d;
    d.kind = Decision::Kind::SyncCache;
    d.lba = lba;
    d.blocks = blocks;
    return d;
}

}  // namespace scsi
