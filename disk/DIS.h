#pragma once
// DIS: the in-memory form of a pack's disk information sectors. One DIS holds
// the global part (identical on every disk of a pack: identity, generation,
// membership, name) and, in a table indexed by LD number, the local part of
// each member disk that is present (a LogicalDiskContainer). The master DIS is
// owned by DiskPackManager; discovery builds one DIS per pack and generation
// found on the disks.
//
// Invariants: "eGlobalDIS" guards the global part and the table; a container
// sits in the table at its own LD number and its bit is set in logicalDisks;
// a missing member keeps its bit but has no container. Generation rises only
// at a global write that asks for it, iteration at every write of one disk.
// The on-disk codec is DisSector; this class never lays out bytes itself.
#include <array>
#include <cstdint>
#include <ostream>
#include <string>

#include "disk/DisSector.h"
#include "disk/DiskPackId.h"
#include "util/ErrorInjection/ErrorInjection.h"
#include "util/ExtendingLockObject.h"
#include "util/IOTracker.h"
#include "util/StatusCode.h"

class DIS {
public:
    static constexpr unsigned maxLogicalDisks = 24;
    static constexpr uint16_t kUnknownSlot = 99;
    static constexpr unsigned kCopies = 3;
    static constexpr unsigned kInjectionPoints = 16;
    static constexpr const char* kNotExpunged = "NOT EXPUNGED";

    // The local part of one member disk, and where its three copies live.
    class LogicalDiskContainer : public DisLocalPart {
    public:
        LogicalDiskContainer() = default;
        LogicalDiskContainer(const LogicalDiskContainer&) = default;
        LogicalDiskContainer& operator=(const LogicalDiskContainer&) = default;
        virtual ~LogicalDiskContainer() = default;

        // Sets the three ranges for a disk of `capacity` sectors; each copy
        // starts at its range's first sector, and the iteration at 0.
        void setRanges(uint64_t capacity);
        void setReason(const std::string& reason);
        std::string reason() const;
        bool allRangesBad() const { return (flags & DisLayout::DIS_RANGE_BAD_MASK) == DisLayout::DIS_RANGE_BAD_MASK; }

        // The local part's numbers are DisLocalPart; the reason is kept here.
        char expungeReason[DisLayout::kReasonBytes] = "NOT EXPUNGED";
        // Where the copies are: current sector and last sector of each range.
        uint32_t disLba[kCopies] = {0, 0, 0};
        uint32_t rangeEnd[kCopies] = {0, 0, 0};
        uint16_t slot = kUnknownSlot;
        bool delayedExpunge = false;
        bool regionFoundNew = false;  // set by the Region layer when it finds the disk new
    };

    DIS();
    ~DIS();
    DIS(const DIS&) = delete;
    // Copies the global part only; the lock and the table stay.
    DIS& operator=(const DIS& other);

    // Back to the values of a fresh DIS; every container is deleted.
    void reset();
    void deleteContainers();
    // Moves every container of `other` into this table (same LD numbers).
    void takeContainers(DIS& other);

    // Builds the sector of `ld` from the global part and its local part; the
    // computed checksums are stored in the container too.
    void buildSector(LogicalDiskContainer& ld, uint8_t* sector);
    // Takes the global part of a decoded sector.
    void takeGlobal(const DisSector& sector);
    static void takeLocal(const DisSector& sector, LogicalDiskContainer& ld);

    // Writes one disk's three copies; the caller holds "eGlobalDIS"
    // exclusively. A write that is not an expunge joins `tracker`.
    StatusCode updateSingleDis(LogicalDiskContainer* ld, IOTracker& tracker, bool expunge);
    // Writes one LD, or the whole pack (null, or DIS_UPDATE_GLOBAL set).
    StatusCode updateDis(LogicalDiskContainer* ld, bool bumpGeneration);
    // Moves bad copies on within their ranges and rewrites them.
    void repairDis();
    // Gives the disk the lowest free LD number and installs the Region
    // layer on it; the caller holds "eGlobalDIS" exclusively.
    StatusCode addLogicalDisk(LogicalDiskContainer* ld);
    // Finds and deletes the container of the disk in `slot`; its LD stays a member.
    StatusCode removeDiskInSlot(uint16_t slot);
    // Whether the chosen pack can load; called without "eGlobalDIS".
    bool packViable(bool& updateNeeded);

    LogicalDiskContainer* container(unsigned ld) const { return ld < maxLogicalDisks ? mLds[ld] : nullptr; }
    void setContainer(unsigned ld, LogicalDiskContainer* c) { mLds[ld] = c; }
    LogicalDiskContainer* containerInSlot(uint16_t slot) const;
    unsigned containerCount() const;
    bool hasLd(unsigned ld) const { return ld < maxLogicalDisks && (logicalDisks >> ld & 1); }
    std::string nameString() const;
    void setName(const std::string& name);

    // The fault points "updateDis.0".."updateDis.15" (module "dis"): point k
    // is asked before the k-th disk of a global write; when it fires that
    // disk's write gives the point's status, DiskNotPresent unless one is set.
    static ErrorInjection& injection();
    static int injectionPoint(unsigned k);

    // Global part.
    uint32_t sig0 = DisLayout::kSig0;
    uint32_t version = DisLayout::kVersion;
    uint32_t layout = DisLayout::kCurrentLayout;
    DiskPackId packId;
    uint32_t generation = 0;
    uint32_t logicalDisks = 0;
    uint32_t critcalDisks = 0;
    char name[DisLayout::kNameBytes] = "TarvoPro";
    uint32_t flags = 0;  // global flags, in memory only

    ExtendingLockObject globalDISLock{"eGlobalDIS", 0x23};

private:
    void postEvent(const std::string& text);
    StatusCode writeGlobal(bool bumpGeneration, IOTracker& tracker);
    void rollback(const std::array<LogicalDiskContainer*, maxLogicalDisks>& written, unsigned count,
                  IOTracker& tracker);

    alignas(512) uint8_t mScratch[DisLayout::kSectorSize];
    std::array<LogicalDiskContainer*, maxLogicalDisks> mLds{};
};

std::ostream& operator<<(std::ostream& os, const DIS& dis);
std::ostream& operator<<(std::ostream& os, const DIS::LogicalDiskContainer& ld);

// A singly linked list that owns what its nodes point at: node = next pointer
// and one element. DISList holds the candidate packs of discovery in the
// order found; AvailableDiskList the disks with no record, or free for reuse.
template <class T>
class OwningList {
public:
    struct Node {
        Node* next;
        T* item;
    };
    OwningList() = default;
    OwningList(const OwningList&) = delete;
    OwningList& operator=(const OwningList&) = delete;
    ~OwningList() { clear(); }

    void append(T* item) {
        Node* n = new Node{nullptr, item};
        if (!mHead) mHead = n;
        else mTail->next = n;
        mTail = n;
        ++mSize;
    }
    // Takes the first element out without deleting it; null when empty.
    T* popFront() {
        if (!mHead) return nullptr;
        Node* n = mHead;
        mHead = n->next;
        if (!mHead) mTail = nullptr;
        T* item = n->item;
        delete n;
        --mSize;
        return item;
    }
    // Takes `item` out without deleting it; false when it is not listed.
    bool unlink(T* item) {
        for (Node **p = &mHead, *prev = nullptr; *p; prev = *p, p = &(*p)->next) {
            if ((*p)->item != item) continue;
            Node* n = *p;
            *p = n->next;
            if (mTail == n) mTail = prev;
            delete n;
            --mSize;
            return true;
        }
        return false;
    }
    void clear() {
        while (T* item = popFront()) delete item;
    }
    Node* head() const { return mHead; }
    bool empty() const { return mHead == nullptr; }
    unsigned size() const { return mSize; }

private:
    Node* mHead = nullptr;
    Node* mTail = nullptr;
    unsigned mSize = 0;
};

using DISList = OwningList<DIS>;
using AvailableDiskList = OwningList<DIS::LogicalDiskContainer>;
