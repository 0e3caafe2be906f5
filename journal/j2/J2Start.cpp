// J2Manager: the partition at start (signatures, quick test, torn-mark
// repair), the replay of dirty journalettes, pack load and hot plug.
#include <cstring>
#include <iomanip>
#include <sstream>

#include "disk/DiskManager.h"
#include "journal/j2/J2CacheHooks.h"
#include "journal/j2/J2Manager.h"
#include "journal/j2/J2Nvram.h"
#include "journal/j2/J2Trace.h"
#include "system/SystemManager.h"
#include "system/nvram.h"
#include "util/Assert.h"

using namespace j2;

Trace j2Trace("J2", "J2Manager", "Info", false);

namespace {
std::string hex(uint64_t v) {
    std::ostringstream o;
    o << std::hex << v;
    return o.str();
}
}  // namespace

void J2Manager::stampHeader(unsigned slot, const DiskIdentifier* id, uint16_t diskNum, uint16_t valid) {
    DiskHeader& h = dh(slot);
    DiskIdentifier none;
    J2Nvram::storeBytes(&h.diskId, id ? id : &none, sizeof(DiskIdentifier), "j2.header.diskId");
    J2Nvram::store16(h.diskNum, diskNum, "j2.header.diskNum");
    J2Nvram::store16(h.valid, valid, "j2.header.valid");
    J2Nvram::store32(h.magic, kSignature, "j2.header.magic");
}

void J2Manager::setValid(unsigned slot, uint16_t valid) { J2Nvram::store16(dh(slot).valid, valid, "j2.header.valid"); }

void J2Manager::buildPartition() {
    for (unsigned i = 0; i < kMaxDisks; ++i) {
        unsigned char* ctrl = mBase + ctrlOffset(i);
        unsigned char* payload = mBase + payloadOffset(i);
        if (!nvramQuickTest(payload, kPayloadSize, 1) || !nvramQuickTest(ctrl, kCtrlArea, 1)) {
            mNvramSuspect = true;
            ESA_CONSOLE("**** PSRAM FAILS J2 QUICK TEST on journal " << i);
        } else {
            ESA_CONSOLE("J2::Init: NVRAM quick test PASSED on journal " << i);
        }
        J2Nvram::zero(ctrl, kCtrlArea, "j2.init.ctrl");
        DiskHeader& h = dh(i);
        J2Nvram::store32(h.journalette, ctrlOffset(i), "j2.init.offsets");
        J2Nvram::store32(h.payload, payloadOffset(i), "j2.init.offsets");
        location[i] = {ctrl, payload};
        stampHeader(i, nullptr, uint16_t(i), 0);
        resetSoftJournalette(int(i));
    }
    J2Nvram::store32(mSoft->signature, kSignature, "j2.init.signature");
}

void J2Manager::adoptLocations(uint32_t signature) {
    // Offsets in current layouts; a legacy layout's absolute addresses named
    // the same fixed places of a mapping that no longer exists, so the places
    // are taken from the fixed layout in both cases.
    ESA_CONSOLE((signature == kSignatureV39 ? "LEGACY" : "CURRENT") << " journal location pointers in use");
    for (unsigned i = 0; i < kMaxDisks; ++i) {
        location[i] = {mBase + ctrlOffset(i), mBase + payloadOffset(i)};
        if (signature != kSignatureV39 &&
            (dh(i).getJournalette() != ctrlOffset(i) || dh(i).getPayload() != payloadOffset(i)))
            ESA_CONSOLE("J2::initialize: journalette " << i << " offsets differ from the layout; layout used");
        if (dh(i).getMagic() != kSignature)
            ESA_CONSOLE("J2::initialize: bad disk header magic 0x" << hex(dh(i).getMagic()) << " on journal " << i);
        // load and space follow the committed records.
        Committed c = walkCommitted(i);
        load[i].ctrl = c.next;
        load[i].payload = location[i].payload;
        uint32_t ctrlUsed = uint32_t(c.next - location[i].journalette);
        for (unsigned char* r = location[i].journalette; r < c.next;) {
            auto* head = reinterpret_cast<AtomicSetHead*>(r);
            auto* tr = reinterpret_cast<J2Transaction*>(r + kSetHeadSize);
            for (uint16_t t = 0; t < head->getNumTran(); ++t) {
                unsigned char* end = location[i].journalette +
                                     size_t(tr[t].getPlace() + (tr[t].getNumSecs() & ~kInjectBit)) * kSectorSize;
                if (end > load[i].payload && end <= location[i].journalette + kJournaletteStride)
                    load[i].payload = end;
            }
            r += recordSize(head->getNumTran());
        }
        space[i] = {kCtrlSize - std::min(ctrlUsed, kCtrlSize),
                    kPayloadSize - uint32_t(load[i].payload - location[i].payload)};
        mLastRecord[i] = c.last;
        mLastId[i] = c.last ? reinterpret_cast<AtomicSetHead*>(c.last)->getId() : 0;
    }
}

J2Manager::Committed J2Manager::walkCommitted(unsigned slot) const {
    Committed c;
    unsigned char* rec = location[slot].journalette;
    unsigned char* end = location[slot].journalette + kCtrlSize;
    while (rec + kSetHeadSize <= end) {
        auto* head = reinterpret_cast<AtomicSetHead*>(rec);
        if (head->getMark() != kMark || rec + recordSize(head->getNumTran()) > end) break;
        c.last = rec;
        rec += recordSize(head->getNumTran());
    }
    c.next = rec;
    return c;
}

// Completes a set whose marks were torn by a power cut. Only the set that was
// being committed can have unmarked records at the places behind the last
// committed records (every commit and every reset clears the head there), and
// only its marked members can be the last committed record carrying its id
// (an earlier record of the same id had its id cleared before the commit).
// So a set is completed when some journalette's last committed record carries
// its id; no order of ids is assumed.
unsigned J2Manager::repairTornMarks() {
    Committed c[kMaxDisks];
    for (unsigned s = 0; s < kMaxDisks; ++s) c[s] = walkCommitted(s);
    auto pendingId = [&](unsigned s) -> uint64_t {
        if (c[s].next + kSetHeadSize > location[s].journalette + kCtrlSize) return 0;
        auto* h = reinterpret_cast<AtomicSetHead*>(c[s].next);
        return h->getMark() == 0 ? h->getId() : 0;
    };
    unsigned repaired = 0;
    for (unsigned b = 0; b < kMaxDisks; ++b) {
        uint64_t t = pendingId(b);
        if (t == 0) continue;
        bool marked = false;
        for (unsigned a = 0; a < kMaxDisks && !marked; ++a)
            marked = c[a].last && reinterpret_cast<AtomicSetHead*>(c[a].last)->getId() == t && pendingId(a) != t;
        if (!marked) continue;
        auto* h = reinterpret_cast<AtomicSetHead*>(c[b].next);
        if (c[b].next + recordSize(h->getNumTran()) > location[b].journalette + kCtrlSize) continue;
        ESA_CONSOLE("J2::Init: Repairing transaction ID 0x" << hex(t) << " in journalette " << b);
        J2Nvram::store16(h->mark, kMark, "j2.repair.mark");
        ++repaired;
    }
    if (repaired) ESA_CONSOLE("J2: Repaired " << repaired << " broken sub-" << "tranasctions in the journal");
    return repaired;
}

StatusCode J2Manager::Initialize() {
    if (mInitialized) {
        ESA_CONSOLE("J2Manager::initialize: ERROR, called > 1 times!");
        return StatusCode::InitFailed;
    }
    bool processJournal = !mBase;  // the singleton: the journal of this process
    if (!mBase) {
        mBase = static_cast<unsigned char*>(nvram::GetInstance()->GetBuffer(kPartitionId));
        mSoft = reinterpret_cast<SoftHeader*>(mBase);
        if (!mBase || nvram::GetInstance()->GetBufferSize(kPartitionId) < kPartitionSize) {
            ESA_CONSOLE("J2Manager::initialize: no nvram partition for J2, can't continue");
            mBase = nullptr;
            return StatusCode::InitFailed;
        }
    }
    mInitialized = true;
    uint32_t sig = mSoft->getSignature();
    if (sig == kSignatureV39 || sig == kSignatureV41) {
        ESA_CONSOLE("J2::initialize: Upgrading journal to ver 0x" << hex(kSignature & 0xFFFF) << " from ver 0x"
                                                                  << hex(sig & 0xFFFF));
        for (unsigned i = 0; i < kMaxDisks; ++i) J2Nvram::store32(dh(i).magic, kSignature, "j2.init.upgrade");
    }
    if (sig == kSignature || sig == kSignatureV39 || sig == kSignatureV41) {
        ESA_CONSOLE("J2Manager::initialize: J2 soft journal signature GOOD! 0x" << hex(sig));
        if (sig != kSignature) ESA_CONSOLE("******* J2 IS UPGRADING, CAUSES A REBOOT *******");
        J2Nvram::store16(mSoft->numdisks, kMaxDisks, "j2.init.numdisks");
        for (unsigned i = 0; i < kMaxDisks; ++i) location[i] = {mBase + ctrlOffset(i), mBase + payloadOffset(i)};
        repairTornMarks();
        adoptLocations(sig);
    } else {
        if (sig == 0) {
            ESA_CONSOLE("J2 Signature == 0, array probably started with ClearDisk option");
        } else if (sig == kSignatureWipe) {
            ESA_CONSOLE("J2 signature 0x" << hex(sig) << " [CONTROLLED PSRAM WIPE]");
        } else {
            mNvramSuspect = true;
            ESA_CONSOLE(" *** UNKNOWN SIGNATURE ***. j2soft at 0x" << static_cast<void*>(mBase));
            std::ostringstream d;
            d << "Unexpected J2 signature - dumping first 512 bytes of J2 NVRAM:\n";
            for (unsigned i = 0; i < 512; ++i)
                d << std::hex << std::setw(2) << std::setfill('0') << unsigned(mBase[i]) << ((i % 32 == 31) ? "\n" : " ");
            ESA_CONSOLE(d.str());
        }
        ESA_CONSOLE("J2::initialize: J2 signature missing initialising NVRAM for " << kMaxDisks << " disks.");
        ESA_CONSOLE("J2::initialize: signature Read from NVRAM: 0x" << hex(sig) << " signature expected: 0x"
                                                                    << hex(kSignature));
        J2Nvram::store16(mSoft->numdisks, kMaxDisks, "j2.init.numdisks");
        buildPartition();
    }
    startThreads();
    // From here on every transaction's commit places its set in this journal.
    if (processJournal) installTrackerHooks();
    return StatusCode::Success;
}

bool J2Manager::nvramQuickTest(void* address, size_t size, unsigned passes) const {
    auto fail = [&](size_t at, unsigned expected, unsigned got) {
        ESA_CONSOLE("nvramQuickTest fails during loop at 0x" << hex(at) << " expected 0x" << hex(expected)
                                                             << " read 0x" << hex(got));
        return false;
    };
    for (unsigned pass = 0; pass < passes; ++pass) {
        auto* b = static_cast<volatile uint8_t*>(address);
        for (size_t i = 0; i < size; ++i) b[i] = uint8_t(i);
        for (size_t i = 0; i < size; ++i)
            if (b[i] != uint8_t(i)) return fail(i, uint8_t(i), b[i]);
        auto* h = static_cast<volatile uint16_t*>(address);
        for (size_t i = 0; i < size / 2; ++i) h[i] = uint16_t(i);
        for (size_t i = 0; i < size / 2; ++i)
            if (h[i] != uint16_t(i)) return fail(i * 2, uint16_t(i), h[i]);
        auto* w = static_cast<volatile uint32_t*>(address);
        for (size_t i = 0; i < size / 4; ++i) w[i] = uint32_t(i);
        for (size_t i = 0; i < size / 4; ++i)
            if (w[i] != uint32_t(i)) return fail(i * 4, uint32_t(i), w[i]);
    }
    return true;
}

const char* J2Manager::nvramCorruptMessage() const {
    return "\n****************************************************************\n"
           "**** J2: battery-backed memory is SUSPECT: the journal was     ****\n"
           "**** rebuilt; metadata changes not yet on disk may be lost.    ****\n"
           "****************************************************************\n";
}

void J2Manager::rebootIfCritical(unsigned short slot) const {
    if (slot >= kMaxDisks || !(mCriticalMap.load() >> slot & 1)) return;
    std::string why = "J2::rebootIfCritical: slot #" + std::to_string(slot) + " IS CRITICAL AND MISSING REBOOTING";
    ESA_CONSOLE(why);
    die(why);
}

void J2Manager::startSoft() {
    if (!mInitialized) return;  // no journal yet: nothing to replay
    auto map = DiskManager::GetInstance()->GetDiskWWNMap();
    for (auto& [slot, id] : map) {
        if (!id) continue;
        for (unsigned n = 0; n < kMaxDisks; ++n) {
            uint32_t magic = dh(n).getMagic();
            if (magic != kSignature && magic != kSignatureV39) {
                ESA_CONSOLE("J2::startSoft: " << "bad signature [0x" << hex(magic) << "] on disk " << n
                                              << " NOT checking WWN");
                continue;
            }
            if (dh(n).diskId != *id) continue;
            J2Nvram::store16(dh(n).diskNum, uint16_t(slot), "j2.start.diskNum");
            setValid(n, 1);
            if (dh(n).getClean()) {
                ESA_TRACE(j2Trace, "J2::startSoft: journalette " << n << " clean for disk " << slot);
                break;
            }
            ESA_CONSOLE("J2::startSoft: " << "journalette [" << n << "] DIRTY, replaying to disk " << slot
                                          << " from journalette " << n);
            {
                LockObject::ExclusiveLockInstance soft(&mSoftLock);
                ReentrantLockObject::LockInstance flush(&mFlushLock);
                if (needSpill(n)) doSpill(n, true);
            }
            if (J2CacheHooks::get().clearSet) J2CacheHooks::get().clearSet(unsigned(slot));
            break;
        }
    }
}

StatusCode J2Manager::LoadDiskPack() {
    if (!mBase) return StatusCode::InitFailed;
    mCriticalMap = 0;
    uint32_t sig = mSoft->getSignature();
    if (sig == kSignatureV39 || sig == kSignatureV41) {
        J2Nvram::store32(mSoft->signature, 0, "j2.load.upgrade");
        nvram::GetInstance()->WipeNvram();
        die("J2Manager::LoadDiskPack: Zapping journal and rebooting to complete UPGRADE");
    }
    LockObject::ExclusiveLockInstance soft(&mSoftLock);
    for (unsigned s = 0; s < kMaxDisks; ++s) {
        if (dh(s).getClean() == 0) {
            ESA_CONSOLE("J2Manager::LDP: INFO:" << "discarding DIRTY journalette for disk " << s << " ["
                                                << dh(s).diskId << "]");
        }
        stampHeader(s, nullptr, uint16_t(s), 0);
        resetSoftJournalette(int(s));
    }
    for (auto& [slot, id] : DiskManager::GetInstance()->GetDiskWWNMap()) {
        if (slot < 0 || slot >= int(kMaxDisks)) {
            ESA_CONSOLE("more disks in WWN container than maxDisks [" << slot << "]");
            continue;
        }
        stampHeader(unsigned(slot), id, uint16_t(slot), 1);
    }
    mLoaded = true;
    ESA_CONSOLE("J2Manager::LoadDiskPack: Reset all journalettes free space, ctrl = " << kCtrlSize
                                                                                      << " payload = " << kPayloadSize);
    return StatusCode::Success;
}

StatusCode J2Manager::UnloadDiskPack() {
    forceFlush(false);
    mLoaded = false;
    mCriticalMap = 0;
    return StatusCode::Success;
}

void J2Manager::hotPlug(unsigned short drive, hotOperation op) {
    if (drive >= kMaxDisks || !mInitialized) return;
    if (op == hotAdd) {
        if (!mLoaded) {
            ESA_TRACE(j2Trace, "hot add before LDP, vectoring through startSoft()");
            startSoft();
            return;
        }
        const DiskIdentifier* id = DiskManager::GetInstance()->GetDiskWWN(drive);
        if (!id) return;
        bool clearSlot = false;
        {
            LockObject::ExclusiveLockInstance soft(&mSoftLock);
            if (dh(drive).getValid()) {
                ESA_CONSOLE("J2::hotPlug: Already a disk in slot " << drive);
                if (dh(drive).diskId == *id) {
                    ESA_CONSOLE("J2::hotPlug: ALLOWING CONTINUATION, disk is the same!");
                    return;
                }
            }
            for (unsigned o = 0; o < kMaxDisks; ++o) {
                if (o == drive || dh(o).diskId != *id) continue;
                if (dh(o).getClean() == 0) {
                    ESA_CONSOLE("J2::hotPlug: added disk was DIRTY when removed, " << "replaying from slot " << o
                                                                                   << " to disk " << drive);
                    J2Nvram::store16(dh(o).diskNum, drive, "j2.hot.diskNum");
                    setValid(o, 1);
                    {
                        ReentrantLockObject::LockInstance flush(&mFlushLock);
                        if (needSpill(o)) doSpill(o, true);
                    }
                    setValid(o, 0);
                    stampHeader(o, nullptr, uint16_t(o), 0);
                    clearSlot = true;
                } else {
                    ESA_CONSOLE("J2::hotPlug: added disk was CLEAN when removed, " << "no replay needed");
                    stampHeader(o, nullptr, uint16_t(o), 0);
                }
                break;
            }
            // A dirty journalette of an absent disk in this slot gives way to the
            // newcomer (its disk can no longer be replayed to).
            if (dh(drive).getClean() == 0 && dh(drive).diskId != *id)
                ESA_CONSOLE("J2::hotPlug: discarding DIRTY journalette of absent disk [" << dh(drive).diskId
                                                                                         << "] for new disk in slot "
                                                                                         << drive);
            resetSoftJournalette(drive);
            stampHeader(drive, id, drive, 1);
        }
        // The cache is told outside "lJ2Soft": dropping a set may wait for a
        // range lock, and range locks come before the journal's locks.
        if (clearSlot && J2CacheHooks::get().clearSet) J2CacheHooks::get().clearSet(drive);
        return;
    }
    if (op == hotRemove) {
        if (!mLoaded) {
            ESA_CONSOLE("J2::hotPlug: ignoring remove on slot " << drive << " because journals are in READ ONLY mode");
            return;
        }
        rebootIfCritical(drive);
        LockObject::ExclusiveLockInstance soft(&mSoftLock);
        if (dh(drive).getClean() == 0)
            ESA_CONSOLE("J2::hotPlug: REMOVAL of disk from slot " << drive << " with DIRTY journalette");
        if (dh(drive).getValid() == 0) {
            ESA_TRACE(j2Trace, "J2Manager::hotPlug: " << "REMOVE on ** MISSING ** disk, slot " << drive);
        } else {
            setValid(drive, 0);
            cleanseJournalette(drive);
        }
        return;
    }
    ESA_CONSOLE("J2::hotPlug: Unknown hotplug op = " << unsigned(op));
}
