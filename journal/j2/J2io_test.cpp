// The spill's extent list: newest copy of every sector, in LBA order.
#include "journal/j2/J2io.h"

#include <gtest/gtest.h>

#include <vector>

namespace {
struct Extent {
    uint32_t lba, sectors;
    long offset;  // data address, in sectors from `base`
    bool operator==(const Extent&) const = default;
};
std::vector<unsigned char> backing(600 * 512);
unsigned char* const base = backing.data();

std::vector<Extent> extents(const J2io& io) {
    std::vector<Extent> v;
    for (const J2io::elem* e = io.front(); e; e = e->next)
        v.push_back({e->lba, e->sectors, long((e->data - base) / 512)});
    return v;
}
unsigned char* at(long sector) { return base + sector * 512; }
}  // namespace

TEST(J2io, ANewerExtentCutsEveryOlderCopyOfItsSectors) {
    J2io io;
    io.insert(10, 10, at(0));    // 10..19 from 0
    io.insert(30, 5, at(100));   // 30..34
    io.insert(14, 2, at(200));   // splits the first: 10..13, 14..15 new, 16..19 moved on
    EXPECT_EQ(extents(io), (std::vector<Extent>{{10, 4, 0}, {14, 2, 200}, {16, 4, 6}, {30, 5, 100}}));
    io.insert(12, 20, at(300));  // 12..31: cuts 10..13 back, swallows two, cuts the front of 30..34
    EXPECT_EQ(extents(io), (std::vector<Extent>{{10, 2, 0}, {12, 20, 300}, {32, 3, 102}}));
    io.insert(12, 20, at(400));  // the same range again: the newest wins
    EXPECT_EQ(extents(io), (std::vector<Extent>{{10, 2, 0}, {12, 20, 400}, {32, 3, 102}}));
    io.insert(5, 5, at(500));    // touching, not overlapping
    EXPECT_EQ(io.size(), 4u);
    EXPECT_EQ(io.front()->lba, 5u);
}

TEST(J2io, ExtentsComeOffInLbaOrderWhateverTheInsertOrder) {
    J2io io;
    for (uint32_t i : {7u, 3u, 9u, 1u, 5u}) io.insert(i * 10, 2, at(i));
    uint32_t last = 0;
    while (J2io::elem* e = io.pop()) {
        EXPECT_GT(e->lba, last);
        last = e->lba;
        delete e;
    }
    EXPECT_TRUE(io.empty());
}

TEST(J2io, AnOlderExtentInsideANewerOneAtTheSameStartGoes) {
    J2io io;
    io.insert(100, 4, at(0));
    io.insert(100, 8, at(50));
    EXPECT_EQ(extents(io), (std::vector<Extent>{{100, 8, 50}}));
    io.insert(100, 2, at(80));
    EXPECT_EQ(extents(io), (std::vector<Extent>{{100, 2, 80}, {102, 6, 52}}));
}
