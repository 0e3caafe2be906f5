#include "system/nvram.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "platform/board/Board.h"

namespace {
// An independent mapping of a region's file: what survives the process.
class RegionFile {
public:
    explicit RegionFile(const char* name, size_t size) : mSize(size) {
        std::string path = (Board::GetInstance().dir() / "nvram" / name).string();
        int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0644);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(::ftruncate(fd, off_t(size)), 0);
        mBase = static_cast<unsigned char*>(::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        ::close(fd);
    }
    ~RegionFile() { ::munmap(mBase, mSize); }
    unsigned char* base() { return mBase; }
    uint32_t word(size_t offset) {
        uint32_t w;
        std::memcpy(&w, mBase + offset, 4);
        return w;
    }

private:
    unsigned char* mBase;
    size_t mSize;
};

std::string initializeCapturing(nvram& nv, bool clear) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(nv.Initialize(clear), StatusCode::Success);
    return testing::internal::GetCapturedStdout();
}
}  // namespace

class Nvram : public testing::Test {
protected:
    RegionFile dram{"nvramDRAMSim", nvram::kRegion0Size};
    RegionFile psram{"nvramPSRAM", nvram::kRegion1Size};
};

TEST_F(Nvram, AWipedRegionIsInitialisedWithTheWipeMessage) {
    std::memset(dram.base(), 0x55, nvram::kRegion0Size);
    std::memset(psram.base(), 0x55, nvram::kRegion1Size);
    nvram nv;
    std::string out = initializeCapturing(nv, false);
    EXPECT_NE(out.find("NVRAM was wiped, initializing region 0"), std::string::npos) << out;
    EXPECT_NE(out.find("NVRAM was wiped, initializing region 1"), std::string::npos) << out;
    EXPECT_EQ(out.find("wipe failure"), std::string::npos);
    EXPECT_EQ(nv.regions(), 2u);
    EXPECT_EQ(dram.word(0), nvram::kMagic);
    EXPECT_EQ(dram.word(4), nvram::kVersion);
    EXPECT_EQ(dram.word(8), uint32_t(nvram::kRegion0Size));
    EXPECT_EQ(dram.word(12), 0u);
    // Partition records: id, offset, size; the first right behind the header.
    EXPECT_EQ(dram.word(16), nvram::kJ1ReplayTagCache);
    EXPECT_EQ(dram.word(20), 0x40u);
    EXPECT_EQ(dram.word(24), 0x900200u);
    EXPECT_EQ(dram.word(28), nvram::kJ1Tags);
    EXPECT_EQ(dram.word(32), 0x40u + 0x900200u);
    EXPECT_EQ(dram.word(36), 0x80200u);
    EXPECT_EQ(dram.word(40), 0u);
    EXPECT_EQ(psram.word(16), nvram::kJ2);
    EXPECT_EQ(psram.word(20), 0x40u);
    EXPECT_EQ(nv.GetBuffer(nvram::kJ1Tags), static_cast<void*>(static_cast<unsigned char*>(nv.GetBuffer(nvram::kJ1ReplayTagCache)) + 0x900200));
    EXPECT_EQ(nv.GetBufferSize(nvram::kJ2), 0x384200u);
    EXPECT_EQ(nv.GetBuffer(0x12345678), nullptr);
    EXPECT_EQ(nv.GetBufferSize(0x12345678), 0u);
    // The partitions' contents are not touched.
    EXPECT_EQ(dram.base()[0x40], 0x55);
}

TEST_F(Nvram, AWipePatternWithGarbageDeeperReportsTheMismatchAndInitialisesAllTheSame) {
    std::memset(psram.base(), 0x55, nvram::kRegion1Size);
    psram.base()[0x1000] = 0x12;
    std::memset(dram.base(), 0xA7, 64);  // garbage: an unknown signature
    nvram nv;
    std::string out = initializeCapturing(nv, false);
    EXPECT_NE(out.find("NVRAM: detected NVRAM wipe failure at 0x"), std::string::npos) << out;
    EXPECT_NE(out.find("read [18] expected 85"), std::string::npos) << out;
    EXPECT_NE(out.find("NVRAM was wiped, initializing region 1"), std::string::npos);
    EXPECT_NE(out.find("NVRAM not initialized or wiped for region 0, got sig = 0xA7A7A7A7, expected = 0x90BEBE90"),
              std::string::npos)
        << out;
    EXPECT_EQ(psram.word(0), nvram::kMagic);
    EXPECT_EQ(dram.word(0), nvram::kMagic);
}

TEST_F(Nvram, AValidRegionKeepsItsPartitionsAcrossARestart) {
    {
        nvram first;
        initializeCapturing(first, true);
        auto* j2 = static_cast<unsigned char*>(first.GetBuffer(nvram::kJ2));
        ASSERT_NE(j2, nullptr);
        std::memcpy(j2, "J2 journal bytes", 16);
        auto* tags = static_cast<unsigned char*>(first.GetBuffer(nvram::kJ1Tags));
        tags[0x80200 - 1] = 0xEE;
    }
    // The next start: a new instance over the same battery-backed files.
    nvram second;
    std::string out = initializeCapturing(second, false);
    EXPECT_EQ(out.find("NVRAM"), std::string::npos) << "a valid region is left as it is: " << out;
    EXPECT_EQ(std::memcmp(psram.base() + 0x40, "J2 journal bytes", 16), 0);
    EXPECT_EQ(dram.base()[0x40 + 0x900200 + 0x80200 - 1], 0xEE);
    EXPECT_EQ(std::memcmp(second.GetBuffer(nvram::kJ2), "J2 journal bytes", 16), 0);
}

TEST_F(Nvram, AClearZeroesEverythingAndWipeRemovesTheHeaders) {
    std::memset(psram.base() + 0x40, 0x99, 4096);
    nvram nv;
    std::string out = initializeCapturing(nv, true);
    EXPECT_NE(out.find("Cleardisk invoked - NVRAM being cleared for region 0"), std::string::npos) << out;
    EXPECT_NE(out.find("Cleardisk invoked - NVRAM being cleared for region 1"), std::string::npos);
    EXPECT_EQ(psram.base()[0x40], 0);
    EXPECT_EQ(psram.word(0), nvram::kMagic);
    ASSERT_EQ(nv.WipeNvram(), StatusCode::Success);
    EXPECT_EQ(psram.word(0), 0u);
    EXPECT_EQ(dram.word(0), 0u);
    nvram next;
    out = initializeCapturing(next, false);
    EXPECT_NE(out.find("NVRAM not initialized or wiped for region 0, got sig = 0x0"), std::string::npos) << out;
    EXPECT_EQ(dram.word(0), nvram::kMagic);
}

TEST(NvramRecords, PartitionSizesAreRoundedUpToWholeWords) {
    EXPECT_EQ(nvram::recordSize(0x900200), 0x900200u);
    EXPECT_EQ(nvram::recordSize(0x101), 0x104u);
    EXPECT_EQ(nvram::recordSize(0x103), 0x104u);
    EXPECT_EQ(nvram::recordSize(0), 0u);
}
