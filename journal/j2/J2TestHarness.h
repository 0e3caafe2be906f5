#pragma once
// Test harness of the journal: J2 over the board's battery-backed region file
// (mapped, as it survives a power cut) and real simulated disks whose
// volatile caches are dropped at a cut. A restart is a new J2Manager over the
// same partition, with the disks reopened without a flush.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "disk/DiskTestFixture.h"
#include "journal/j2/J2Manager.h"
#include "journal/j2/J2Nvram.h"
#include "system/nvram.h"

struct J2Fatal : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class J2Harness : public DiskTestFixture {
protected:
    // The partition as this board's region file holds it; the mapping stays
    // for the whole run, whatever a test does to the region's header.
    static unsigned char* partition() {
        static unsigned char* p = [] {
            auto* n = new nvram;
            EXPECT_EQ(n->Initialize(false), StatusCode::Success);
            return static_cast<unsigned char*>(n->GetBuffer(nvram::kJ2));
        }();
        EXPECT_NE(p, nullptr);
        return p;
    }

    void TearDown() override {
        J2Nvram::setCutHook(nullptr);
        j2.reset();
        DiskTestFixture::TearDown();
    }

    // A start of the journal: Initialize (repair), then the replay.
    void boot(bool threads = false) {
        j2 = std::make_unique<J2Manager>(partition(), threads);
        j2->fatal = [](const std::string& why) { throw J2Fatal(why); };
        ASSERT_EQ(j2->Initialize(), StatusCode::Success);
        j2->startSoft();
    }
    void bootAndLoad(bool threads = false) {
        boot(threads);
        ASSERT_EQ(j2->LoadDiskPack(), StatusCode::Success);
    }
    // Power cut: the journal's process memory and every drive cache are lost;
    // the disks come back as they are on their images.
    void powerCut() {
        J2Nvram::setCutHook(nullptr);
        ctl().powerCut();
        j2.reset();
        if (dm()->loaded()) dm()->UnloadDiskPack();
        ctl().forget();
        ASSERT_EQ(dm()->LoadDiskPack(false), StatusCode::Success);
    }

    // Adds one write of `sectors` sectors with pattern `gen` to the tracker's set.
    StatusCode write(IOTracker& t, int slot, uint32_t lba, uint32_t sectors, uint32_t gen) {
        auto buf = std::make_shared<AlignedBuffer>(sectors * kSectorSize);
        for (uint32_t s = 0; s < sectors; ++s) pattern(buf->p + s * kSectorSize, slot, lba + s, gen);
        mBuffers.push_back(buf);
        DiskPane pane{buf->p, uint32_t(buf->size)};
        return j2->writeData(uint16_t(slot), &pane, 1, lba, t);
    }
    // Writes straight to the disk and flushes it (the state before a test).
    void writeDisk(int slot, uint32_t lba, uint32_t sectors, uint32_t gen) {
        AlignedBuffer b(sectors * kSectorSize);
        for (uint32_t s = 0; s < sectors; ++s) pattern(b.p + s * kSectorSize, slot, lba + s, gen);
        ASSERT_EQ(dm()->WriteData(slot, b.p, lba, sectors), StatusCode::Success);
        ASSERT_EQ(dm()->Flush(slot), StatusCode::Success);
    }
    // The generation every sector of the range holds, or -1 when they differ or are not patterns.
    int generationOf(int slot, uint32_t lba, uint32_t sectors) {
        AlignedBuffer b(sectors * kSectorSize);
        if (dm()->ReadData(slot, b.p, lba, sectors) != StatusCode::Success) return -2;
        int gen = -1;
        for (uint32_t s = 0; s < sectors; ++s) {
            int found = -1;
            for (uint32_t g = 0; g < 16 && found < 0; ++g) {
                std::vector<uint8_t> want(kSectorSize);
                pattern(want.data(), slot, lba + s, g);
                if (std::memcmp(want.data(), b.p + s * kSectorSize, kSectorSize) == 0) found = int(g);
            }
            if (found < 0 || (gen >= 0 && found != gen)) return -1;
            gen = found;
        }
        return gen;
    }
    std::string captured(const std::function<void()>& f) {
        testing::internal::CaptureStdout();
        f();
        return testing::internal::GetCapturedStdout();
    }

    std::unique_ptr<J2Manager> j2;
    std::vector<std::shared_ptr<AlignedBuffer>> mBuffers;
};
