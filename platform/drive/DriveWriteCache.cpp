#include "platform/drive/DriveWriteCache.h"

#include <cstring>

#include "platform/drive/DriveCommand.h"

bool parseDriveCacheMode(const std::string& text, DriveCacheMode& mode) {
    if (text == "random") mode = DriveCacheMode::Random;
    else if (text == "ordered") mode = DriveCacheMode::Ordered;
    else return false;
    return true;
}

const char* driveCacheModeName(DriveCacheMode mode) {
    return mode == DriveCacheMode::Random ? "random" : "ordered";
}

void DriveWriteCache::configure(DriveCacheMode mode, uint64_t seed) {
    mMode = mode;
    mRandom.seed(seed);
    mOrder.clear();
    for (uint64_t index : mList) mOrder.push_back(index);
}

DriveWriteCache::Chunk& DriveWriteCache::chunkFor(uint64_t index) {
    auto [it, fresh] = mChunks.try_emplace(index);
    if (fresh) {
        it->second.data.reset(new uint8_t[kChunkSectors * kSectorSize]);
        it->second.listPos = mList.size();
        mList.push_back(index);
        if (mMode == DriveCacheMode::Ordered) mOrder.push_back(index);
    }
    return it->second;
}

void DriveWriteCache::remove(uint64_t index) {
    auto it = mChunks.find(index);
    if (it == mChunks.end()) return;
    size_t pos = it->second.listPos;
    uint64_t last = mList.back();
    mList[pos] = last;
    mChunks[last].listPos = pos;
    mList.pop_back();
    mChunks.erase(it);
}

void DriveWriteCache::put(uint64_t lba, const uint8_t* data, uint32_t sectors) {
    for (uint32_t s = 0; s < sectors; ++s) {
        uint64_t l = lba + s;
        Chunk& c = chunkFor(l / kChunkSectors);
        std::memcpy(c.data.get() + (l % kChunkSectors) * kSectorSize, data + size_t(s) * kSectorSize, kSectorSize);
        c.present |= uint64_t(1) << (l % kChunkSectors);
    }
    makeRoom();
}

void DriveWriteCache::overlay(uint64_t lba, uint8_t* dst, uint32_t sectors) const {
    if (mChunks.empty()) return;
    for (uint32_t s = 0; s < sectors; ++s) {
        uint64_t l = lba + s;
        auto it = mChunks.find(l / kChunkSectors);
        if (it == mChunks.end() || !(it->second.present >> (l % kChunkSectors) & 1)) continue;
        std::memcpy(dst + size_t(s) * kSectorSize, it->second.data.get() + (l % kChunkSectors) * kSectorSize,
                    kSectorSize);
    }
}

size_t DriveWriteCache::sectors() const {
    size_t n = 0;
    for (auto& [i, c] : mChunks) n += size_t(__builtin_popcountll(c.present));
    return n;
}

void DriveWriteCache::writeMask(uint64_t index, Chunk& c, uint64_t mask) {
    unsigned s = 0;
    while (s < kChunkSectors) {
        if (!(mask >> s & 1)) {
            ++s;
            continue;
        }
        unsigned e = s;
        while (e < kChunkSectors && (mask >> e & 1)) ++e;
        mMedium(index * kChunkSectors + s, c.data.get() + s * kSectorSize, e - s);
        s = e;
    }
    c.present &= ~mask;
}

void DriveWriteCache::flush() {
    for (uint64_t index : mList) {
        Chunk& c = mChunks[index];
        writeMask(index, c, c.present);
    }
    mChunks.clear();
    mList.clear();
    mOrder.clear();
}

bool DriveWriteCache::writeBackSome() {
    if (mList.empty()) return false;
    uint64_t index = mList[mRandom() % mList.size()];
    Chunk& c = mChunks[index];
    // A random cached sector of the chunk, and a run of up to kLongestRun
    // cached sectors from it: a write's sectors go out in pieces.
    unsigned pick = unsigned(mRandom() % unsigned(__builtin_popcountll(c.present)));
    unsigned first = 0;
    for (uint64_t bits = c.present;; bits &= bits - 1)
        if (pick-- == 0) {
            first = unsigned(__builtin_ctzll(bits));
            break;
        }
    unsigned want = 1 + unsigned(mRandom() % kLongestRun);
    uint64_t mask = 0;
    for (unsigned s = first; s < kChunkSectors && want && (c.present >> s & 1); ++s, --want) mask |= uint64_t(1) << s;
    writeMask(index, c, mask);
    if (!c.present) remove(index);
    return true;
}

void DriveWriteCache::makeRoom() {
    while (mChunks.size() > kLimitChunks) {
        if (mMode == DriveCacheMode::Random) {
            writeBackSome();
            continue;
        }
        if (mOrder.empty()) return;
        uint64_t index = mOrder.front();
        mOrder.pop_front();
        auto it = mChunks.find(index);
        if (it == mChunks.end()) continue;
        writeMask(index, it->second, it->second.present);
        remove(index);
    }
}

void DriveWriteCache::lose() {
    if (mMode == DriveCacheMode::Random && !mList.empty()) {
        // How far the drive got: nothing, everything, or each sector with one
        // chance drawn for this cut, so that every subset can occur.
        uint64_t shape = mRandom() % 8;
        double landing = shape == 0 ? 0.0 : shape == 1 ? 1.0 : double(mRandom() % 1000) / 1000.0;
        std::uniform_real_distribution<double> coin(0.0, 1.0);
        for (uint64_t index : mList) {
            Chunk& c = mChunks[index];
            uint64_t mask = 0;
            for (uint64_t bits = c.present; bits; bits &= bits - 1)
                if (coin(mRandom) < landing) mask |= uint64_t(1) << __builtin_ctzll(bits);
            writeMask(index, c, mask);
        }
    }
    drop();
}

void DriveWriteCache::drop() {
    mChunks.clear();
    mList.clear();
    mOrder.clear();
}
