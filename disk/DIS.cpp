// DIS: the record itself (construction, copies, sector form, stream output)
// and the removal of a disk from the table. Writing and repair are in
// DISWrite.cpp; membership (addLogicalDisk, packViable) in DISMembership.cpp.
#include "disk/DIS.h"

#include <cstring>
#include <iomanip>

#include "management/EventLogManager.h"

using namespace DisLayout;

namespace {
void copyText(char* to, size_t room, const std::string& text) {
    std::memset(to, 0, room);
    std::memcpy(to, text.data(), std::min(text.size(), room - 1));
}
std::string textOf(const char* p, size_t room) { return std::string(p, strnlen(p, room)); }
}  // namespace

// ---- the container

void DIS::LogicalDiskContainer::setRanges(uint64_t capacity) {
    auto ranges = disRangesFor(capacity);
    for (unsigned i = 0; i < kCopies; ++i) {
        disLba[i] = ranges[i].first;
        rangeEnd[i] = ranges[i].end - 1;  // the last sector of the range
    }
    iteration = 0;
}

void DIS::LogicalDiskContainer::setReason(const std::string& text) { copyText(expungeReason, sizeof expungeReason, text); }

std::string DIS::LogicalDiskContainer::reason() const { return textOf(expungeReason, sizeof expungeReason); }

// ---- the record

DIS::DIS() { std::memset(mScratch, 0, sizeof mScratch); }

DIS::~DIS() { deleteContainers(); }

DIS& DIS::operator=(const DIS& other) {
    if (this == &other) return *this;
    sig0 = other.sig0;
    version = other.version;
    layout = other.layout;
    packId = other.packId;
    generation = other.generation;
    logicalDisks = other.logicalDisks;
    critcalDisks = other.critcalDisks;
    std::memcpy(name, other.name, sizeof name);
    flags = other.flags;
    return *this;
}

void DIS::reset() {
    deleteContainers();
    DIS fresh;
    *this = fresh;
}

void DIS::deleteContainers() {
    for (auto& c : mLds) {
        delete c;
        c = nullptr;
    }
}

void DIS::takeContainers(DIS& other) {
    for (unsigned ld = 0; ld < maxLogicalDisks; ++ld) {
        if (!other.mLds[ld]) continue;
        delete mLds[ld];
        mLds[ld] = other.mLds[ld];
        other.mLds[ld] = nullptr;
    }
}

DIS::LogicalDiskContainer* DIS::containerInSlot(uint16_t slot) const {
    for (auto* c : mLds)
        if (c && c->slot == slot) return c;
    return nullptr;
}

unsigned DIS::containerCount() const {
    unsigned n = 0;
    for (auto* c : mLds) n += c != nullptr;
    return n;
}

std::string DIS::nameString() const { return textOf(name, sizeof name); }

void DIS::setName(const std::string& text) { copyText(name, sizeof name, text); }

void DIS::buildSector(LogicalDiskContainer& ld, uint8_t* sector) {
    DisSector s;
    s.sig0 = sig0;
    s.version = version;
    s.layout = layout;
    s.packId[0] = packId.word[0];
    s.packId[1] = packId.word[1];
    s.generation = generation;
    s.logicalDisks = logicalDisks;
    s.critcalDisks = critcalDisks;
    s.name = nameString();
    static_cast<DisLocalPart&>(s) = ld;  // the checksums are the encoder's
    s.expungeReason = ld.reason();
    s.encode(sector);
    ld.checksum = s.checksum;
    ld.extChecksum = s.extChecksum;
}

void DIS::takeGlobal(const DisSector& s) {
    sig0 = s.sig0;
    version = s.version;
    layout = s.layout;
    packId.word[0] = s.packId[0];
    packId.word[1] = s.packId[1];
    generation = s.generation;
    logicalDisks = s.logicalDisks;
    critcalDisks = s.critcalDisks;
    setName(s.name);
    // A sector without the extension is upgraded at the next write.
    if (!s.hasExtension()) flags |= DIS_UPDATE_GLOBAL;
}

void DIS::takeLocal(const DisSector& s, LogicalDiskContainer& ld) {
    static_cast<DisLocalPart&>(ld) = s;
    ld.setReason(s.expungeReason);
}

StatusCode DIS::removeDiskInSlot(uint16_t slot) {
    ExtendingLockObject::ExclusiveLockInstance g(&globalDISLock);
    for (auto& c : mLds) {
        if (!c || c->slot != slot) continue;
        delete c;
        c = nullptr;
        return StatusCode::Success;
    }
    return StatusCode::DiskNotPresent;
}

void DIS::postEvent(const std::string& text) { EventLogManager::EventLog()->PostEvent(text); }

ErrorInjection& DIS::injection() {
    static ErrorInjection points("dis");
    static bool created = [] {
        for (unsigned k = 0; k < kInjectionPoints; ++k) {
            std::string n = "updateDis." + std::to_string(k);
            points.addApiPoint(n.c_str(), "fail the write of the k-th disk of a global DIS write");
        }
        return true;
    }();
    (void)created;
    return points;
}

int DIS::injectionPoint(unsigned k) {
    injection();
    return int(k);
}

// ---- stream output

std::ostream& operator<<(std::ostream& os, const DIS& d) {
    std::ios::fmtflags f = os.flags();
    os << std::hex << "sig0\t\t: 0x" << d.sig0 << "\n"
       << "version\t\t: 0x" << d.version << "\n"
       << "layout\t\t: 0x" << d.layout << "\n"
       << "PackID\t\t: 0x" << std::setw(8) << std::setfill('0') << d.packId.word[0] << " 0x" << std::setw(8)
       << d.packId.word[1] << std::setfill(' ') << "\n"
       << std::dec << "generation\t: " << d.generation << "\n"
       << std::hex << "logicalDisks\t: 0x" << d.logicalDisks << "\n"
       << "critcalDisks\t: 0x" << d.critcalDisks << "\n"
       << "name\t\t: " << d.nameString() << "\n"
       << "flags\t\t: 0x" << d.flags << "\n";
    os.flags(f);
    return os;
}

std::ostream& operator<<(std::ostream& os, const DIS::LogicalDiskContainer& c) {
    std::ios::fmtflags f = os.flags();
    os << std::dec << "LD #" << c.ldNumber << " slot " << c.slot << "\n"
       << std::hex << "LD BM\t\t: 0x" << c.ldBitmap << "\n"
       << "flags\t\t: 0x" << c.flags << "\n"
       << std::dec << "DIS iteration\t: " << c.iteration << "\n"
       << std::hex << "RM LBA [0]\t: 0x" << c.rmLba[0] << "\n"
       << "RM LBA [1]\t: 0x" << c.rmLba[1] << "\n"
       << "sig1\t\t: 0x" << c.sig1 << "\n"
       << "checksum\t: 0x" << c.checksum << "\n"
       << "DIS LBAs\t: 0x" << c.disLba[0] << " 0x" << c.disLba[1] << " 0x" << c.disLba[2] << "\n"
       << "DIS LBA start\t: 0x" << (c.rangeEnd[0] + 1 - DisLayout::kRangeSectors) << " 0x"
       << (c.rangeEnd[1] + 1 - DisLayout::kRangeSectors) << " 0x" << (c.rangeEnd[2] + 1 - DisLayout::kRangeSectors)
       << "\n"
       << "DIS LBA end\t: 0x" << c.rangeEnd[0] << " 0x" << c.rangeEnd[1] << " 0x" << c.rangeEnd[2] << "\n"
       << "Ext sig3\t: 0x" << c.sig3 << "\n"
       << "Ext version\t: " << std::dec << c.extVersion << "\n"
       << "Expunge reason\t: " << c.reason() << "\n"
       << "Ext checksum\t: 0x" << std::hex << c.extChecksum << "\n";
    os.flags(f);
    return os;
}
