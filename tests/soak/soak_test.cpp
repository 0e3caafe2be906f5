// The power-cut soak on the real esa (SoakDriver): Zone patterns, Zone churn
// and a host writing over iSCSI in flight, cuts at moments the board draws and at named crash points,
// and after every cut every acknowledged write checked and the pack's records
// checked with `metacheck ext` and on the images. CI runs a few cuts; ESA_SOAK_ITERATIONS and
// ESA_SOAK_SECONDS run a long soak (ESA_SOAK_SEED replays one).
//
// With ESA_SOAK_FIGURE=1 it also prints the soak's rate as a figure line,
// beside the rate of bare restarts (start to console, kill -9) on the same
// board in the same run.
#include <gtest/gtest.h>

#include <chrono>
#include <iostream>

#include "tests/soak/SoakWorkloads.h"
#include "tests/support/EsaProcess.h"
#include "tests/support/PackImage.h"
#include "tests/support/TestBoard.h"

namespace {

double restartsPerHour(unsigned restarts) {
    TestBoard board;
    packimage::createDisks(board, "8G,8G,8G,12G");
    const auto start = std::chrono::steady_clock::now();
    for (unsigned i = 0; i < restarts; ++i) {
        EsaProcess esa(board.dir().string());
        if (!esa.waitForConsole()) return 0;
        esa.kill9();
    }
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    return restarts * 3600.0 / took.count();
}

}  // namespace

TEST(Soak, NothingAcknowledgedIsLostAcrossPowerCuts) {
    SoakOptions options = SoakOptions::fromEnvironment(4);
    std::vector<std::unique_ptr<SoakWorkload>> workloads;
    workloads.push_back(std::make_unique<ZonePatternWorkload>());
    workloads.push_back(std::make_unique<ZoneChurnWorkload>());
    workloads.push_back(std::make_unique<HostWriteWorkload>());
    SoakDriver driver(options, std::move(workloads));
    const auto start = std::chrono::steady_clock::now();
    SoakTally tally = driver.run();
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    for (auto& f : tally.failures) ADD_FAILURE() << f;
    EXPECT_EQ(tally.lost, 0u) << tally.summary() << " (ESA_SOAK_SEED=" << options.seed << ")";
    EXPECT_GT(tally.checked, 0u) << "the workloads got no write acknowledged before the cuts";
    if (!options.seconds) {
        EXPECT_EQ(tally.cuts, options.iterations) << tally.summary();
    }
    if (const char* f = std::getenv("ESA_SOAK_FIGURE"); f && *f == '1' && tally.cuts) {
        const double cutsPerHour = tally.cuts * 3600.0 / took.count();
        const double reference = restartsPerHour(10);
        std::printf("figure soak.cuts_per_hour %.0f cuts/h ref restarts_per_hour %.0f restarts/h ratio %.3f\n",
                    cutsPerHour, reference, reference > 0 ? cutsPerHour / reference : 0.0);
    }
}
