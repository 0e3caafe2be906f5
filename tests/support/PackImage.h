#pragma once
// PackImage: a test's view of a board's disks from outside the system: disks
// made and pulled with the board tool, sectors read straight from the slot
// images, and the live DIS copy of each range found as discovery finds it
// (the valid record with the highest iteration), through the independent
// reader.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <algorithm>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/EsaProcess.h"
#include "tests/support/IndependentReader.h"
#include "tests/support/TestBoard.h"

namespace packimage {

namespace fs = std::filesystem;

inline void boardTool(const TestBoard& board, const std::string& arguments) {
    std::string cmd = esaBinary("esa-board") + " " + arguments + " >/dev/null";
    ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
}
// Blank disks of the given sizes ("8G,16G") in slots 0...
inline void createDisks(const TestBoard& board, const std::string& sizes) {
    boardTool(board, "create " + board.dir().string() + " --disks " + sizes);
}
inline void pullDisk(const TestBoard& board, int slot) {
    boardTool(board, "pull " + board.dir().string() + " " + std::to_string(slot));
}

inline fs::path img(const TestBoard& board, int slot) { return board.path("slots/" + std::to_string(slot) + ".img"); }
inline uint64_t capacityOf(const fs::path& image) { return fs::file_size(image) / 512; }

inline std::vector<uint8_t> readImage(const fs::path& image, uint64_t lba, uint32_t sectors) {
    std::vector<uint8_t> out(size_t(sectors) * 512);
    int fd = ::open(image.c_str(), O_RDONLY);
    EXPECT_GE(fd, 0) << image;
    if (fd < 0) return out;
    EXPECT_EQ(::pread(fd, out.data(), out.size(), off_t(lba * 512)), ssize_t(out.size()));
    ::close(fd);
    return out;
}

// The three range starts of a disk, from the record table's formula.
inline std::vector<uint32_t> rangeStarts(uint64_t capacity) {
    uint32_t cap = uint32_t(capacity);
    return {0, (cap / 0xD200) * 0x6900, cap - 0x80};
}

struct Copy {
    independent::Dis dis;
    uint32_t lba = 0;
};
inline std::vector<Copy> liveCopies(const fs::path& image) {
    std::vector<Copy> copies;
    for (uint32_t first : rangeStarts(capacityOf(image))) {
        std::vector<uint8_t> range = readImage(image, first, 0x80);
        Copy best;
        for (uint32_t i = 0; i < 0x80; ++i) {
            independent::Dis d = independent::readDis(range.data() + i * 512);
            if (!d.valid || (best.dis.valid && d.iteration < best.dis.iteration)) continue;
            best.dis = d;
            best.lba = first + i;
        }
        copies.push_back(best);
    }
    return copies;
}

// A digest of an image's data extents (images are sparse): equal digests mean
// byte-identical images. Zero runs inside an extent check to 0, so the span
// of every extent is part of the digest.
inline std::string imageDigest(const fs::path& image) {
    int fd = ::open(image.c_str(), O_RDONLY);
    if (fd < 0) return "unreadable";
    std::string digest;
    off_t end = ::lseek(fd, 0, SEEK_END);
    std::vector<uint8_t> buf(1 << 16);
    for (off_t pos = 0; pos < end;) {
        off_t data = ::lseek(fd, pos, SEEK_DATA);
        if (data < 0) break;
        off_t hole = ::lseek(fd, data, SEEK_HOLE);
        uint32_t crc = 0;
        for (off_t at = data; at < hole; at += off_t(buf.size())) {
            ssize_t n = ::pread(fd, buf.data(), size_t(std::min<off_t>(off_t(buf.size()), hole - at)), at);
            if (n <= 0) break;
            crc = independent::crc(buf.data(), size_t(n)) ^ (crc * 31);
        }
        digest += std::to_string(data) + ":" + std::to_string(hole) + ":" + std::to_string(crc) + ";";
        pos = hole;
    }
    ::close(fd);
    return digest;
}

// The Zones a console "alloczones" reported.
inline std::vector<unsigned> allocatedZonesIn(const std::string& output) {
    std::vector<unsigned> zones;
    std::regex line("Allocated Zone ([0-9]+)");
    for (std::sregex_iterator i(output.begin(), output.end(), line), end; i != end; ++i)
        zones.push_back(unsigned(std::stoul((*i)[1])));
    return zones;
}

}  // namespace packimage
