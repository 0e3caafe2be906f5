// The J2 figures, each beside its reference in the same run:
//   j2.commit_1/3/8  commits per second of a set of 1, 3 or 8 sectors, the
//                    sets spread over 4 disks     ref memcpy of the same payload
//                                                 into the mapped partition
//   j2.spill         spill throughput of full journalettes on 4 disks
//                                                 ref the disks' raw sequential
//                                                 write of the same bytes, flushed
// Latency percentiles of the commits are printed as comment lines. Spills are
// kept out of the commit timings (the journal is spilled between rounds).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "disk/DiskManager.h"
#include "journal/j2/J2Manager.h"
#include "platform/board/Board.h"
#include "platform/drive/SimDisk.h"
#include "platform/rtos/BoardClock.h"
#include "platform/rtos/Rtos.h"
#include "system/nvram.h"
#include "util/LockOrderChecker.h"

namespace {
using Clock = std::chrono::steady_clock;
constexpr int kDisks = 4;
// Both a figure and its reference are the best of this many timed rounds: a
// round of commits is short (one journal's worth), so a busy neighbour on a
// shared machine spoils single rounds, never all of them.
constexpr int kRounds = 20;

void figure(const char* name, double value, const char* unit, const char* refName, double ref) {
    std::printf("figure %s %.3f %s ref %s %.3f %s ratio %.3f\n", name, value, unit, refName, ref, unit,
                ref > 0 ? value / ref : 0.0);
}

double seconds(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

// Commits of `sectors`-sector sets; returns commits per second, best of rounds.
double commitRate(J2Manager& j2, uint32_t sectors, std::vector<double>& latencies) {
    std::vector<unsigned char> data(sectors * kSectorSize, 0x5A);
    DiskPane pane{data.data(), uint32_t(data.size())};
    // As many sets as fit the journalettes (payload and control) without a spill.
    const int perDisk = int(std::min<size_t>(j2::kPayloadSize / data.size(),
                                             (j2::kCtrlSize - 16) / j2::recordSize(1)));
    const int perRound = kDisks * perDisk * 9 / 10;
    double best = 0;
    for (int round = 0; round <= kRounds; ++round) {
        j2.forceFlush(false);
        auto t0 = Clock::now();
        for (int i = 0; i < perRound; ++i) {
            // Only the last round reads the clock around each commit.
            Clock::time_point c0;
            if (round == kRounds) c0 = Clock::now();
            IOTracker t(READ_WRITE);
            j2.writeData(uint16_t(i % kDisks), &pane, 1, uint64_t(i / kDisks) * sectors, t);
            t.commit();  // as the system commits: through the transaction
            if (round == kRounds) latencies.push_back(std::chrono::duration<double, std::micro>(Clock::now() - c0).count());
        }
        if (round < kRounds) best = std::max(best, perRound / seconds(t0));
    }
    return best;
}

// The same payload copied into the mapped partition, moving on as the journal does.
double memcpyRate(unsigned char* partition, uint32_t sectors) {
    std::vector<unsigned char> data(sectors * kSectorSize, 0x5A);
    const uint32_t span = j2::kPayloadSize / data.size();
    double best = 0;
    for (int round = 0; round < kRounds; ++round) {
        auto t0 = Clock::now();
        const int n = 4000;
        for (int i = 0; i < n; ++i) {
            unsigned char* to = partition + j2::payloadOffset(i % kDisks) + (i / kDisks % span) * data.size();
            std::memcpy(to, data.data(), data.size());
            asm volatile("" ::: "memory");
        }
        best = std::max(best, n / seconds(t0));
    }
    return best;
}

void percentiles(const char* name, std::vector<double> v) {
    std::sort(v.begin(), v.end());
    auto at = [&](double p) { return v.empty() ? 0.0 : v[std::min(v.size() - 1, size_t(p * v.size()))]; };
    std::printf("# %s latency us: p50 %.2f p90 %.2f p99 %.2f p99.9 %.2f\n", name, at(0.5), at(0.9), at(0.99),
                at(0.999));
}
}  // namespace

int main(int argc, char** argv) {
    // `bench_j2 profile` runs only 3-sector commits for a few seconds, for a profiler.
    const bool profileOnly = argc > 1 && std::strcmp(argv[1], "profile") == 0;
    char tmpl[] = "/tmp/esa-j2bench-XXXXXX";
    std::string dir = ::mkdtemp(tmpl);
    ::setenv("ESA_BOARD", dir.c_str(), 1);
    BoardClock::GetInstance().configure(BoardClock::Mode::Real);
    Board::GetInstance().open(dir);
    taskRegisterSelf("tJ2Bench", 120);
    LockOrderChecker::setEnabled(false);
    std::filesystem::create_directories(Board::GetInstance().path("slots"));
    for (int s = 0; s < kDisks; ++s) {
        std::string err;
        if (!SimDisk::create(Board::GetInstance().path("slots/" + std::to_string(s)), 1ull << 21, {}, err)) {
            std::fprintf(stderr, "j2_bench: %s\n", err.c_str());
            return 0;
        }
    }
    DiskManager* dm = DiskManager::GetInstance();
    nvram nv;
    if (dm->Initialize() != StatusCode::Success || dm->LoadDiskPack(false) != StatusCode::Success ||
        nv.Initialize(false) != StatusCode::Success) {
        std::fprintf(stderr, "j2_bench: no disks or battery-backed memory\n");
        return 0;
    }
    auto* partition = static_cast<unsigned char*>(nv.GetBuffer(nvram::kJ2));
    std::memset(partition, 0, j2::kPartitionSize);
    J2Manager j2(partition, true);
    j2.Initialize();
    j2.LoadDiskPack();
    j2.installTrackerHooks();

    if (profileOnly) {
        // Timing by section: a transaction alone, then with its write added
        // (the set dropped by a commit that copies nothing), then whole commits.
        {
            auto t0 = Clock::now();
            const int n = 2000000;
            for (int i = 0; i < n; ++i) {
                IOTracker t(READ_WRITE);
                asm volatile("" : : "r"(&t) : "memory");
            }
            std::printf("%.1f ns per IOTracker\n", seconds(t0) * 1e9 / n);
        }
        std::vector<double> lat;
        auto t0 = Clock::now();
        double r = 0;
        while (seconds(t0) < 3) r = commitRate(j2, 3, lat);
        std::printf("%.1f ns per commit\n", 1e9 / r);
        std::fflush(stdout);
        std::_Exit(0);
    }
    for (uint32_t sectors : {1u, 3u, 8u}) {
        std::vector<double> lat;
        double commits = commitRate(j2, sectors, lat);
        double copies = memcpyRate(partition, sectors);
        std::string name = "j2.commit_" + std::to_string(sectors);
        figure(name.c_str(), commits, "ops/s", "memcpy", copies);
        percentiles(name.c_str(), lat);
        std::fflush(stdout);
    }

    // Spill: each journalette filled with contiguous 8-sector sets.
    const uint32_t setBytes = 8 * kSectorSize;
    const int perDisk = int(j2::kPayloadSize / setBytes) - 1;
    std::vector<unsigned char> data(setBytes, 0xC3);
    DiskPane pane{data.data(), setBytes};
    double bestSpill = 0, bestRaw = 0;
    const double bytes = double(perDisk) * setBytes * kDisks;
    std::vector<unsigned char> flat(size_t(perDisk) * setBytes, 0xC3);
    for (int round = 0; round < 5; ++round) {
        j2.forceFlush(false);
        for (int i = 0; i < perDisk; ++i)
            for (int d = 0; d < kDisks; ++d) {
                IOTracker t(READ_WRITE);
                j2.writeData(uint16_t(d), &pane, 1, 0x10000 + uint64_t(i) * 8, t);
                t.commit();  // as the system commits: through the transaction
            }
        auto t0 = Clock::now();
        j2.forceFlush(false);
        bestSpill = std::max(bestSpill, bytes / seconds(t0) / 1e6);

        t0 = Clock::now();
        std::vector<std::thread> writers;
        for (int d = 0; d < kDisks; ++d)
            writers.emplace_back([&, d] {
                dm->WriteData(d, flat.data(), 0x200000 - flat.size() / kSectorSize, uint32_t(flat.size() / kSectorSize));
                dm->Flush(d);
            });
        for (auto& w : writers) w.join();
        bestRaw = std::max(bestRaw, bytes / seconds(t0) / 1e6);
    }
    figure("j2.spill", bestSpill, "MB/s", "raw_sequential_write", bestRaw);
    std::fflush(stdout);
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    std::_Exit(0);  // the disks' threads and the journal's tasks end with the process
}
