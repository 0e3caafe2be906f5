// The disk pack on the real esa: a new pack from blank disks and the same pack
// found again after its disks moved, disks of two packs refused without a
// byte written, and a power cut in the middle of a pack-wide DIS write. The
// disks' records are read from the image files by the independent reader.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <regex>
#include <sstream>

#include "tests/support/EsaProcess.h"
#include "tests/support/IndependentReader.h"
#include "tests/support/PackImage.h"
#include "tests/support/TestBoard.h"

namespace {

namespace fs = std::filesystem;

using namespace packimage;

void moveDisk(const fs::path& fromBase, const fs::path& toBase) {
    fs::rename(fromBase.string() + ".img", toBase.string() + ".img");
    fs::rename(fromBase.string() + ".json", toBase.string() + ".json");
}

// Starts esa, waits for its console, runs the commands, writes the metadata
// journal out to the disks and cuts the power. Returns the output.
std::string runOnce(const TestBoard& board, const std::vector<std::string>& commands = {},
                    std::map<std::string, std::string> env = {}) {
    EsaProcess esa(board.dir().string(), {}, env);
    EXPECT_TRUE(esa.waitForConsole()) << esa.output();
    std::string out;
    for (const auto& c : commands) out += esa.console(c).output;
    if (esa.running()) esa.console("j2flush");
    esa.kill9();
    return esa.output() + out;
}

}  // namespace

TEST(PackSystem, BlankDisksBecomeOnePackThatFollowsItsDisksAcrossSlots) {
    TestBoard board;
    createDisks(board, "8G,16G,8G");
    std::string out = runOnce(board, {"state DPM"});
    EXPECT_NE(out.find("DISK PACK IS LOADED"), std::string::npos) << out;

    std::map<int, uint16_t> ldOfSlot;
    uint32_t id0 = 0, id1 = 0;
    for (int slot = 0; slot < 3; ++slot) {
        auto copies = liveCopies(img(board, slot));
        auto starts = rangeStarts(capacityOf(img(board, slot)));
        for (unsigned c = 0; c < 3; ++c) {
            const auto& d = copies[c].dis;
            ASSERT_TRUE(d.valid) << "slot " << slot << " copy " << c;
            EXPECT_EQ(copies[c].lba, starts[c]);
            if (slot == 0 && c == 0) id0 = d.packId0, id1 = d.packId1;
            EXPECT_EQ(d.packId0, id0);
            EXPECT_EQ(d.packId1, id1);
            EXPECT_EQ(d.generation, 1u);
            EXPECT_EQ(d.logicalDisks, 0x7u);
            EXPECT_EQ(d.ldNumber, slot) << "LDs in map order";
            EXPECT_EQ(d.name, "TarvoPro");
        }
        ldOfSlot[slot] = copies[0].dis.ldNumber;
    }
    EXPECT_FALSE(id0 == 0 && id1 == 0);

    // Disks to other slots: slot 0 -> 5, 1 -> 0, 2 -> 3.
    moveDisk(board.path("slots/0"), board.path("slots/5"));
    moveDisk(board.path("slots/1"), board.path("slots/0"));
    moveDisk(board.path("slots/2"), board.path("slots/3"));
    out = runOnce(board, {"state DPM"});
    EXPECT_NE(out.find("DISK PACK IS LOADED"), std::string::npos) << out;
    for (auto [slot, ld] : std::map<int, int>{{5, 0}, {0, 1}, {3, 2}}) {
        EXPECT_NE(out.find("LD #" + std::to_string(ld) + " slot " + std::to_string(slot) + "\n"), std::string::npos)
            << "LD " << ld << " in slot " << slot << "\n"
            << out;
        EXPECT_EQ(liveCopies(img(board, slot))[1].dis.generation, 1u) << "nothing changed: no new generation";
    }
}

TEST(PackSystem, DisksOfTwoPacksLoadNothingAndAreNotWritten) {
    TestBoard a, b;
    createDisks(a, "8G,8G");
    createDisks(b, "8G,8G");
    runOnce(a);
    runOnce(b);
    moveDisk(b.path("slots/0"), a.path("slots/2"));
    moveDisk(b.path("slots/1"), a.path("slots/3"));
    std::map<int, std::string> before;
    for (int s = 0; s < 4; ++s) before[s] = imageDigest(img(a, s));
    std::string out = runOnce(a, {"state DPM"});
    EXPECT_NE(out.find("Conflicting packs prevent load"), std::string::npos) << out;
    EXPECT_NE(out.find("NOT LOADED BECAUSE CONFLICTING DISK PACKS"), std::string::npos) << out;
    for (int s = 0; s < 4; ++s) EXPECT_EQ(imageDigest(img(a, s)), before[s]) << "slot " << s;
}

TEST(PackSystem, PowerCutInTheMiddleOfAPackWideWriteLeavesEveryDiskAtTheOldGeneration) {
    TestBoard board;
    createDisks(board, "8G,8G,8G");
    runOnce(board);
    // The rename is a pack-wide write with a new generation; the power goes
    // after the first disk's records were handed to the journal.
    {
        EsaProcess esa(board.dir().string(), {}, {{"ESA_CRASH_AT", "updateDis.1"}});
        ASSERT_TRUE(esa.waitForConsole()) << esa.output();
        esa.console("setPackName Renamed");
        EXPECT_NE(esa.wait(), 0);
    }
    for (int s = 0; s < 3; ++s) EXPECT_EQ(liveCopies(img(board, s))[0].dis.generation, 1u) << "slot " << s;
    std::string out = runOnce(board, {"state DPM"});
    EXPECT_NE(out.find("DISK PACK IS LOADED"), std::string::npos) << out;
    EXPECT_NE(out.find("generation\t: 1\n"), std::string::npos) << out;
    for (int s = 0; s < 3; ++s) {
        auto copies = liveCopies(img(board, s));
        for (const auto& c : copies) {
            EXPECT_EQ(c.dis.generation, 1u) << "slot " << s;
            EXPECT_EQ(c.dis.name, "TarvoPro");
        }
    }
}

TEST(PackSystem, ExpungedDiskIsRefusedAtTheNextStartAndThePackLoadsWithoutIt) {
    TestBoard board;
    createDisks(board, "8G,8G,8G");
    {
        EsaProcess esa(board.dir().string());
        ASSERT_TRUE(esa.waitForConsole()) << esa.output();
        EXPECT_EQ(esa.console("expungeDisk 1 worn out").rc, 0);
        EXPECT_TRUE(esa.waitForOutput("SM: expunge physical disk 1 (logical disk 1)")) << esa.output();
        esa.console("j2flush");
        esa.kill9();
    }
    for (const auto& c : liveCopies(img(board, 1))) {
        EXPECT_TRUE(c.dis.flags & 0x80000000u) << "DIS_EXPUNGED";
        EXPECT_EQ(c.dis.expungeReason, "worn out");
    }
    EXPECT_EQ(liveCopies(img(board, 0))[0].dis.generation, 2u);
    std::string out = runOnce(board, {"state DPM"});
    EXPECT_NE(out.find("Refusing EXPUNGED slot 1 [worn out]"), std::string::npos) << out;
    EXPECT_NE(out.find("DISK PACK IS LOADED"), std::string::npos) << out;
    EXPECT_NE(out.find("LD #1 MISSING"), std::string::npos) << out;
}

TEST(PackSystem, NewerGenerationWinsAndTheOlderDiskIsAbsorbedAtTheNextGeneration) {
    TestBoard board;
    createDisks(board, "8G,8G,8G");
    runOnce(board);
    // Disk 2 is away for one start: the others move on to generation 2.
    moveDisk(board.path("slots/2"), board.path("away"));
    std::string out = runOnce(board);
    EXPECT_NE(out.find("missing = 1"), std::string::npos) << out;
    ASSERT_EQ(liveCopies(img(board, 0))[0].dis.generation, 2u);
    moveDisk(board.path("away"), board.path("slots/2"));
    ASSERT_EQ(liveCopies(img(board, 2))[0].dis.generation, 1u);
    out = runOnce(board, {"state DPM"});
    EXPECT_NE(out.find("Marking LD #2 from pack"), std::string::npos) << out;
    EXPECT_NE(out.find("DISK PACK IS LOADED"), std::string::npos) << out;
    for (int s = 0; s < 3; ++s)
        for (const auto& c : liveCopies(img(board, s))) {
            EXPECT_EQ(c.dis.generation, 3u) << "slot " << s;
            EXPECT_EQ(c.dis.logicalDisks, 0xFu) << "slot " << s;
        }
    EXPECT_EQ(liveCopies(img(board, 2))[1].dis.ldNumber, 3u) << "the old disk joins as a new LD";
}
