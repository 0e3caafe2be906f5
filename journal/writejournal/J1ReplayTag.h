#pragma once
// J1ReplayTag: the battery-backed record of one host write whose data lie in
// the journal memory "/SHJ1" and may not yet be on the disks for certain. The
// tag cache (the start of NVRAM buffer 0x10012001) is a 0x14-byte header and
// an array of these, all little-endian:
//
//   cache: 0x00 magic 0x4A315201, 0x04 zero, 0x08 DiskPackId, 0x10 tag count
//   tag:   0x00 state, 0x04 LBA (8), 0x0C LUN, 0x10 startOffsst (bytes from
//          the start of "/SHJ1"), 0x14 len (sectors), 0x18 order, 0x1C
//          executeTick, 0x20 store, 0x24 next
//
// Invariant: only PENDING and EXECUTED tags are replayed, and the state word is
// stored last when a tag becomes PENDING and first when it leaves the live
// states, so that a cut never exposes a half-filled tag to the replay. The
// store and next words are this process's own: a process-local handle of the
// DataStore and the index + 1 of the next tag on a list; they mean nothing
// after a restart.
#include <atomic>
#include <cstdint>

#include "util/Endian.h"

enum class ReplayTagState : uint32_t { FREE = 0, ALLOCATED = 1, PENDING = 2, EXECUTED = 3, FLUSHED = 4 };

const char* replayTagStateName(ReplayTagState state);

struct J1ReplayTag {
    static constexpr uint32_t kSize = 40;
    uint8_t raw[kSize];

    ReplayTagState state() const { return ReplayTagState(getLE32(raw)); }
    // The state store: fenced on both sides, so that the fields written
    // before it are in the battery-backed memory before it is.
    void storeState(ReplayTagState s) {
        std::atomic_thread_fence(std::memory_order_seq_cst);
        putLE32(raw, uint32_t(s));
        std::atomic_thread_fence(std::memory_order_seq_cst);
    }
    bool live() const { return state() == ReplayTagState::PENDING || state() == ReplayTagState::EXECUTED; }

    uint64_t lba() const { return getLE64(raw + 0x04); }
    uint32_t lun() const { return getLE32(raw + 0x0C); }
    uint32_t startOffset() const { return getLE32(raw + 0x10); }
    uint32_t len() const { return getLE32(raw + 0x14); }
    uint32_t order() const { return getLE32(raw + 0x18); }
    uint32_t executeTick() const { return getLE32(raw + 0x1C); }
    uint32_t store() const { return getLE32(raw + 0x20); }
    uint32_t next() const { return getLE32(raw + 0x24); }

    void setLba(uint64_t v) { putLE64(raw + 0x04, v); }
    void setLun(uint32_t v) { putLE32(raw + 0x0C, v); }
    void setStartOffset(uint32_t v) { putLE32(raw + 0x10, v); }
    void setLen(uint32_t v) { putLE32(raw + 0x14, v); }
    void setOrder(uint32_t v) { putLE32(raw + 0x18, v); }
    void setExecuteTick(uint32_t v) { putLE32(raw + 0x1C, v); }
    void setStore(uint32_t v) { putLE32(raw + 0x20, v); }
    void setNext(uint32_t v) { putLE32(raw + 0x24, v); }

    // Same LUN and the sector ranges meet.
    bool overlaps(const J1ReplayTag& other) const {
        return lun() == other.lun() && lba() < other.lba() + other.len() && other.lba() < lba() + len();
    }
};
static_assert(sizeof(J1ReplayTag) == 40);

// The header of the tag cache.
struct J1ReplayCacheHeader {
    static constexpr uint32_t kSize = 0x14;
    uint8_t raw[kSize];

    uint32_t magic() const { return getLE32(raw); }
    void storeMagic(uint32_t v) {
        std::atomic_thread_fence(std::memory_order_seq_cst);
        putLE32(raw, v);
        std::atomic_thread_fence(std::memory_order_seq_cst);
    }
    uint32_t packWord(int i) const { return getLE32(raw + 0x08 + 4 * i); }
    void setPackWord(int i, uint32_t v) { putLE32(raw + 0x08 + 4 * i, v); }
    uint32_t numTags() const { return getLE32(raw + 0x10); }
    void setNumTags(uint32_t v) { putLE32(raw + 0x10, v); }
    void setZero() { putLE32(raw + 0x04, 0); }
};
static_assert(sizeof(J1ReplayCacheHeader) == 0x14);
