// Power cuts while hosts write through iSCSI: nothing a host was told is
// written may be lost. The real esa binary runs on a temporary board; writer
// threads, each on its own iSCSI connection, write self-describing sectors
// (512 B to 128 KiB at 512-byte alignment, over a small area so that the
// connections rewrite each other's sectors) and record every acknowledged
// write in an fsynced log. The power is cut (kill -9) at a random moment or at
// a named point (a replay tag's state store, a journal commit mark, a flush);
// the next start replays both journals, and every sector of the area must then
// hold the data of a write that no acknowledged write issued after its own
// acknowledgement overwrote, never stale data, never nothing where something
// was acknowledged. `metacheck ext` must be clean after every start. Some
// cuts fall into the replay itself.
//
// A short sweep runs in CI; ESA_SOAK_ITERATIONS sets the number of random cuts
// of the long one. The board and the log of a failing run are kept
// (ESA_KEEP_FAILED_BOARD) and the seed printed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "platform/board/Board.h"
#include "tests/support/EsaProcess.h"
#include "tests/support/IscsiHost.h"
#include "tests/support/PackImage.h"
#include "tests/support/TestBoard.h"
#include "tools/esa-load/VerifyBlock.h"

namespace {

constexpr uint64_t kAreaStart = 2048;   // sectors
constexpr uint32_t kAreaSectors = 8192;  // 4 MiB: the writers meet often
constexpr uint32_t kMaxWrite = 256;      // 128 KiB
constexpr uint64_t kSeed = 0x4a31;

unsigned soakIterations() {
    const char* v = std::getenv("ESA_SOAK_ITERATIONS");
    return v ? unsigned(std::strtoul(v, nullptr, 10)) : 3;
}

// One host write. `issued` and `acked` are numbers from one counter: a
// write issued after another was acknowledged has the larger number.
struct HostWrite {
    uint64_t lba = 0;
    uint32_t sectors = 0;
    uint64_t gen = 0;  // = issued
    uint64_t acked = UINT64_MAX;  // none: in flight at the cut
};

// What the hosts wrote, and what they were told: every acknowledgement is in
// the log file (written and fdatasynced before the next write is issued)
// before it counts.
class AckLog {
public:
    explicit AckLog(const std::string& path) : mFd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644)) {}
    ~AckLog() { ::close(mFd); }
    uint64_t issue(uint64_t lba, uint32_t sectors) {
        std::lock_guard<std::mutex> g(mLock);
        HostWrite w{lba, sectors, ++mCounter};
        mWrites[w.gen] = w;
        return w.gen;
    }
    void acknowledge(uint64_t gen) {
        std::lock_guard<std::mutex> g(mLock);
        HostWrite& w = mWrites[gen];
        w.acked = ++mCounter;
        char line[96];
        int n = std::snprintf(line, sizeof line, "ack lba %llu sectors %u gen %llu at %llu\n", (unsigned long long)w.lba,
                              w.sectors, (unsigned long long)w.gen, (unsigned long long)w.acked);
        EXPECT_EQ(::write(mFd, line, size_t(n)), n);
        ::fdatasync(mFd);
        mAcked++;
    }
    uint64_t acked() const { return mAcked; }
    const std::map<uint64_t, HostWrite>& writes() const { return mWrites; }

private:
    int mFd;
    std::mutex mLock;
    uint64_t mCounter = 0;
    uint64_t mAcked = 0;
    std::map<uint64_t, HostWrite> mWrites;
};

// Writes until the target goes away or `stop` is set.
void writer(uint16_t port, int number, uint64_t seed, AckLog& log, std::atomic<bool>& stop) {
    IscsiHostConnection c;
    if (!c.open(port, "j1-" + std::to_string(number))) return;
    std::mt19937_64 r(seed);
    std::vector<uint8_t> buffer(kMaxWrite * 512);
    while (!stop) {
        uint32_t sectors = 1 + uint32_t(r() % kMaxWrite);
        uint64_t lba = kAreaStart + r() % (kAreaSectors - sectors + 1);
        uint64_t gen = log.issue(lba, sectors);
        for (uint32_t s = 0; s < sectors; ++s) verify::fillSector(buffer.data() + s * 512, 0, lba + s, gen, kSeed);
        scsi_task* task =
            iscsi_write16_sync(c.ctx, 0, lba, buffer.data(), sectors * 512, 512, 0, 0, 0, 0, 0);
        bool good = task && task->status == SCSI_STATUS_GOOD;
        if (task) scsi_free_scsi_task(task);
        if (!good) return;  // the power went
        log.acknowledge(gen);
    }
}

bool packLoaded(EsaProcess& esa) {
    if (!esa.waitForConsole()) return false;
    for (int i = 0; i < 600; ++i) {
        if (esa.console("state DPM").output.find("DISK PACK IS LOADED") != std::string::npos) return true;
        if (!esa.running()) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

std::map<std::string, std::string> env(const std::string& crashAt = {}) {
    std::map<std::string, std::string> e{{"ESA_PORTAL", "127.0.0.1:0"}};
    if (!crashAt.empty()) e["ESA_CRASH_AT"] = crashAt;
    return e;
}

class J1PowerCut : public ::testing::Test {
protected:
    void SetUp() override {
        packimage::createDisks(board, "8G,8G,12G");
        log = std::make_unique<AckLog>(board.path("acklog.txt").string());
    }
    void TearDown() override {
        if (HasFailure()) std::printf("board %s (ack log acklog.txt)\n", board.dir().c_str());
    }

    // One run of the writers against a started esa, ended by `cut` (which
    // returns once the power is off).
    void writeUntilCut(EsaProcess& esa, uint64_t seed, const std::function<void()>& cut) {
        uint16_t port = iscsiPortOf(esa);
        ASSERT_NE(port, 0) << esa.output();
        ASSERT_TRUE(packLoaded(esa)) << esa.output();
        std::atomic<bool> stop{false};
        std::vector<std::thread> writers;
        for (int i = 0; i < 3; ++i) writers.emplace_back(writer, port, i, seed * 10 + i, std::ref(*log), std::ref(stop));
        cut();
        stop = true;
        for (auto& t : writers) t.join();
    }

    // A start after the cut: the pack loads, metacheck is clean and every
    // acknowledged sector reads back.
    void startAndVerify(const std::string& context) {
        EsaProcess esa(board.dir().string(), {}, env());
        uint16_t port = iscsiPortOf(esa);
        ASSERT_NE(port, 0) << context << esa.output();
        ASSERT_TRUE(packLoaded(esa)) << context << esa.output();
        ConsoleResult check = esa.console("metacheck ext");
        EXPECT_NE(check.output.find("All checks passed OK."), std::string::npos) << context << "\n" << check.output;
        verifyArea(port, context);
        esa.kill9();
    }

    void verifyArea(uint16_t port, const std::string& context) {
        IscsiHostConnection c;
        ASSERT_TRUE(c.open(port, "j1-check")) << context;
        // Per sector, the writes that cover it.
        std::map<uint64_t, std::vector<const HostWrite*>> cover;
        for (const auto& [gen, w] : log->writes())
            for (uint32_t s = 0; s < w.sectors; ++s) cover[w.lba + s].push_back(&w);
        uint64_t checked = 0, lost = 0;
        for (uint64_t lba = kAreaStart; lba < kAreaStart + kAreaSectors; lba += kMaxWrite) {
            scsi_task* task = iscsi_read16_sync(c.ctx, 0, lba, kMaxWrite * 512, 512, 0, 0, 0, 0, 0);
            ASSERT_TRUE(task && task->status == SCSI_STATUS_GOOD) << context << " read at " << lba;
            const uint8_t* data = task->datain.data;
            for (uint32_t s = 0; s < kMaxWrite; ++s) {
                const uint8_t* sector = data + s * 512;
                auto it = cover.find(lba + s);
                if (it == cover.end()) continue;
                uint64_t newestAckIssue = 0;  // the latest-issued acknowledged write of the sector
                for (const HostWrite* w : it->second)
                    if (w->acked != UINT64_MAX) newestAckIssue = std::max(newestAckIssue, w->gen);
                if (newestAckIssue == 0) continue;  // nothing acknowledged here
                ++checked;
                uint64_t gen = verify::get64(sector + 16);
                const HostWrite* found = nullptr;
                for (const HostWrite* w : it->second)
                    if (w->gen == gen) found = w;
                std::string bad = found ? verify::checkSector(sector, 0, lba + s, gen, kSeed) : "no write of the log";
                // An acknowledged write issued after the found one was
                // acknowledged must have overwritten it.
                if (bad.empty() && found->acked != UINT64_MAX)
                    for (const HostWrite* w : it->second)
                        if (w->acked != UINT64_MAX && w->gen > found->acked) bad = "stale: gen " + std::to_string(gen) +
                                                                                   " under acknowledged gen " +
                                                                                   std::to_string(w->gen);
                if (!bad.empty()) {
                    if (lost < 10) ADD_FAILURE() << context << ": LBA " << lba + s << ": " << bad;
                    ++lost;
                }
            }
            scsi_free_scsi_task(task);
        }
        std::printf("%s: %llu acknowledged writes, %llu sectors checked, %llu lost\n", context.c_str(),
                    (unsigned long long)log->acked(), (unsigned long long)checked, (unsigned long long)lost);
        EXPECT_EQ(lost, 0u);
    }

    TestBoard board;
    std::unique_ptr<AckLog> log;
};

}  // namespace

TEST_F(J1PowerCut, RandomCutsWhileThreeHostsRewriteEachOthersSectors) {
    std::mt19937 random(20261125);
    unsigned n = soakIterations();
    for (unsigned i = 0; i < n; ++i) {
        SCOPED_TRACE("cut " + std::to_string(i));
        {
            EsaProcess esa(board.dir().string(), {}, env());
            writeUntilCut(esa, i, [&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(300 + random() % 1500));
                esa.kill9();
            });
        }
        startAndVerify("random cut " + std::to_string(i));
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(log->acked(), 50u);
}

// Cuts at named points: a replay tag's every state store, the journal's
// commit mark, a flush. The pass numbers fall after the first writes.
TEST_F(J1PowerCut, CutsAtNamedPointsOfTheJournals) {
    std::mt19937 random(7);
    const char* points[] = {"j1r.tag.allocated", "j1r.tag.pending", "j1r.tag.executed", "j1r.tag.flushed",
                            "j1r.tag.free", "j1r.flush.begin", "j1r.flush.done", "j2.commit.mark"};
    unsigned cuts = 0;
    for (const char* point : points) {
        // A flush comes once journal space or free tags run short: a few passes.
        bool flush = std::string(point).find("flush") != std::string::npos;
        std::string at = std::string(point) + ":" + std::to_string(flush ? 1 + random() % 3 : 20 + random() % 200);
        SCOPED_TRACE(at);
        {
            EsaProcess esa(board.dir().string(), {}, env(at));
            writeUntilCut(esa, cuts + 100, [&] { esa.wait(std::chrono::seconds(120)); });
            if (esa.running()) {
                esa.kill9();  // the point was not reached in time: a random cut then
            } else {
                ++cuts;
            }
        }
        startAndVerify(std::string("cut at ") + at);
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GE(cuts, 5u);
}

// Cuts while the start replays the journal, one after another: in the
// middle of the replayed writes, after their flush, and once the old tags'
// magic is cleared. The start after them finds every acknowledged write.
TEST_F(J1PowerCut, CutsDuringTheReplayAreRepairedByTheNextStart) {
    {
        // The cut falls right after a tag went PENDING: the journal is dirty.
        EsaProcess esa(board.dir().string(), {}, env("j1r.tag.pending:300"));
        writeUntilCut(esa, 1, [&] { esa.wait(std::chrono::seconds(120)); });
        ASSERT_EQ(esa.wait(), Board::kCrashPointExitStatus) << esa.output();
    }
    for (const char* at : {"j1r.replay.write:1", "j1r.replay.flushed", "j1r.replay.magic"}) {
        EsaProcess esa(board.dir().string(), {}, env(at));
        EXPECT_EQ(esa.wait(std::chrono::seconds(120)), Board::kCrashPointExitStatus) << at << "\n" << esa.output();
        EXPECT_NE(esa.output().find("J1R:replay: GOOD magic (0x4a315201) scanning for replay ..."), std::string::npos)
            << at << "\n" << esa.output();
    }
    startAndVerify("cuts during replay");
}

namespace {

// The small workload of the sweep: one host, one write at a time, sizes from
// one sector to 128 KiB at 512-byte alignment, several rewriting the sectors
// of earlier ones; then the journal drained and its tags flushed, so that
// every tag goes through every state. The same writes in the same order on
// every run.
// True when every write was acknowledged.
bool scriptedWrites(uint16_t port, AckLog& log, unsigned run) {
    IscsiHostConnection c;
    if (!c.open(port, "j1-sweep")) return false;
    const uint32_t sizes[] = {1, 8, 3, 256, 17, 8, 64, 1, 129, 8, 40, 2};
    const uint64_t starts[] = {0, 8, 6, 100, 110, 0, 300, 7, 90, 352, 330, 255};
    std::vector<uint8_t> buffer(kMaxWrite * 512);
    for (size_t i = 0; i < std::size(sizes); ++i) {
        // Each run writes its own part of the area, with an overlap into the last run's part.
        const uint64_t lba = kAreaStart + (run % 16) * 400 + starts[i];
        const uint64_t gen = log.issue(lba, sizes[i]);
        for (uint32_t s = 0; s < sizes[i]; ++s) verify::fillSector(buffer.data() + s * 512, 0, lba + s, gen, kSeed);
        scsi_task* task = iscsi_write16_sync(c.ctx, 0, lba, buffer.data(), sizes[i] * 512, 512, 0, 0, 0, 0, 0);
        const bool good = task && task->status == SCSI_STATUS_GOOD;
        if (task) scsi_free_scsi_task(task);
        if (!good) return false;  // the power went
        log.acknowledge(gen);
    }
    return true;
}

}  // namespace

// The deterministic half: the same small workload, one write in flight at a
// time, cut at every pass of each of the journal's named points (a replay
// tag's every state store and both ends of a flush), one by one, until a run
// ends without reaching the pass (about sixty cuts).
// After each cut the next start must replay, pass metacheck ext and read
// back every acknowledged write.
TEST_F(J1PowerCut, EveryPassOfTheJournalsNamedPointsInASmallWorkload) {
    const char* points[] = {"j1r.tag.allocated", "j1r.tag.pending", "j1r.tag.executed", "j1r.tag.flushed",
                            "j1r.tag.free",      "j1r.flush.begin", "j1r.flush.done"};
    unsigned run = 0, cuts = 0;
    for (const char* point : points) {
        for (unsigned pass = 1;; ++pass) {
            const std::string at = std::string(point) + ":" + std::to_string(pass);
            SCOPED_TRACE(at);
            bool reached;
            {
                EsaProcess esa(board.dir().string(), {}, env(at));
                const uint16_t port = iscsiPortOf(esa);
                ASSERT_NE(port, 0) << esa.output();
                // The pass is reached when esa stops at it; a run that wrote
                // everything and answered both the drain and the flush did
                // not reach it.
                bool answered = false;
                if (packLoaded(esa) && scriptedWrites(port, *log, run++))
                    answered = esa.console("j1 empty").rc == 0 && esa.console("j1 flush").rc == 0;
                const int status = answered ? -1 : esa.wait();
                reached = status == Board::kCrashPointExitStatus;
                ASSERT_TRUE(answered || reached) << "esa stopped, but not at the point\n" << esa.output();
                if (esa.running()) esa.kill9();
            }
            startAndVerify("cut at " + at);
            ASSERT_FALSE(HasFailure());
            if (!reached) break;  // this point has no more passes in the workload
            ++cuts;
        }
    }
    std::printf("J1 sweep: %u cuts at named points\n", cuts);
    EXPECT_GE(cuts, 10u);
}
