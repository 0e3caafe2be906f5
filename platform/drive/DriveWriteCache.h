#pragma once
// DriveWriteCache: the volatile write cache of one simulated drive. Written
// sectors wait in memory (reads see them) until they reach the medium through
// the disk's medium writer. It has two behaviours:
//
// - Random (the default, as real drives are): between two FLUSH CACHEs the
//   drive may put any cached sector on the medium, in any order, at any
//   moment. writeBackSome() writes back one short run of cached sectors chosen
//   by the cache's seeded generator (the disk's write-back thread calls it at
//   random pauses); a full cache makes room the same way; a power loss lands a
//   random subset of what is still cached, sector by sector, then drops the
//   rest. So after a cut the medium holds an arbitrary subset of the unflushed
//   sectors, multi-sector writes torn included.
// - Ordered (the former model, for tests that need nothing to move by itself):
//   nothing reaches the medium before FLUSH CACHE except the oldest 32 KiB
//   chunks once 8 MiB are cached, and a power loss drops everything.
//
// Invariants: only a single 512-byte sector is atomic; a flush puts every
// sector cached before it on the medium; a sector is written back with the
// newest data written to it. Not thread-safe: the disk's lock guards it.
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

enum class DriveCacheMode { Random, Ordered };

// "random" or "ordered" (ESA_DRIVE_CACHE); false for anything else.
bool parseDriveCacheMode(const std::string& text, DriveCacheMode& mode);
const char* driveCacheModeName(DriveCacheMode mode);

class DriveWriteCache {
public:
    // Writes `sectors` whole sectors at `lba` to the medium; false on an I/O error.
    using MediumWriter = std::function<bool(uint64_t lba, const uint8_t* data, uint32_t sectors)>;

    static constexpr unsigned kChunkSectors = 64;
    static constexpr size_t kLimitChunks = 256;  // 8 MiB of cached data, then the cache makes room
    static constexpr unsigned kLongestRun = 16;  // sectors written back in one step, at most

    explicit DriveWriteCache(MediumWriter medium) : mMedium(std::move(medium)) {}

    void configure(DriveCacheMode mode, uint64_t seed);
    DriveCacheMode mode() const { return mMode; }

    // A write: the sectors enter the cache (a full cache first makes room).
    void put(uint64_t lba, const uint8_t* data, uint32_t sectors);
    // Copies over `dst` every sector of [lba, lba + sectors) that the cache holds.
    void overlay(uint64_t lba, uint8_t* dst, uint32_t sectors) const;
    bool empty() const { return mChunks.empty(); }
    size_t sectors() const;

    // FLUSH CACHE: every cached sector to the medium.
    void flush();
    // Random mode: one run of cached sectors to the medium; false when there was nothing to write.
    bool writeBackSome();
    // Power loss: in random mode a random subset of the cached sectors lands
    // first; then the cache is empty.
    void lose();
    // The cache ends with the disk object: nothing more reaches the medium.
    void drop();

    // The generator's next draw, for the write-back thread's pauses.
    uint64_t draw() { return mRandom(); }

private:
    struct Chunk {
        uint64_t present = 0;  // bit n: sector n of the chunk is cached
        size_t listPos = 0;    // place in mList
        std::unique_ptr<uint8_t[]> data;
    };

    Chunk& chunkFor(uint64_t index);
    void remove(uint64_t index);
    // Writes the sectors of `mask` in chunk `index` to the medium, in contiguous runs, and clears them.
    void writeMask(uint64_t index, Chunk& c, uint64_t mask);
    void makeRoom();

    MediumWriter mMedium;
    DriveCacheMode mMode = DriveCacheMode::Random;
    std::mt19937_64 mRandom{1};
    std::unordered_map<uint64_t, Chunk> mChunks;
    std::vector<uint64_t> mList;        // chunk indexes, for a uniform random pick
    std::deque<uint64_t> mOrder;        // ordered mode: chunk indexes, oldest first
};
