#include "tests/soak/SoakDriver.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include "tests/support/EsaProcess.h"
#include "tests/support/PackChecks.h"

namespace fs = std::filesystem;

namespace {

// Named crash points that a running pack passes again and again: the commit
// of a journal set, a spill's writes and its flush, the reset of a journalette.
const char* const kCrashPoints[] = {"j2.commit.mark", "j2.commit.data", "j2.spill.write", "j2.spill.flush",
                                    "j2.reset.clean"};

uint64_t envNumber(const char* name, uint64_t otherwise) {
    const char* v = std::getenv(name);
    return v && *v ? std::strtoull(v, nullptr, 0) : otherwise;
}

int diskCount(const std::string& disks) {
    int n = 1;
    for (char c : disks) n += c == ',';
    return n;
}

}  // namespace

std::string SoakTally::summary() const {
    return std::to_string(cuts) + " cuts, " + std::to_string(checked) + " acknowledged writes checked, " +
           std::to_string(lost) + " lost";
}

// ---- AckLog

AckLog::AckLog(fs::path file) : mFile(std::move(file)) {
    mFd = ::open(mFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

AckLog::~AckLog() {
    if (mFd >= 0) ::close(mFd);
}

void AckLog::append(const std::string& line) {
    std::string text = line + "\n";
    (void)!::write(mFd, text.data(), text.size());
    ::fsync(mFd);
}

void AckLog::intent(const std::string& request) { append("intent " + request); }
void AckLog::ack(const std::string& result) { append("ack " + result); }
void AckLog::refused(const std::string& why) { append("refused " + why); }

std::vector<AckLog::Entry> AckLog::entries() const {
    std::vector<Entry> out;
    std::ifstream in(mFile);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("intent ", 0) == 0) {
            out.push_back({line.substr(7), false, {}});
        } else if (line.rfind("ack ", 0) == 0 && !out.empty() && !out.back().acknowledged) {
            out.back().acknowledged = true;
            out.back().result = line.substr(4);
        }
    }
    return out;
}

// ---- options

SoakOptions SoakOptions::fromEnvironment(unsigned defaultIterations) {
    SoakOptions o;
    o.seed = envNumber("ESA_SOAK_SEED", std::random_device{}() % 1000000000);
    o.seconds = unsigned(envNumber("ESA_SOAK_SECONDS", 0));
    // A time bound alone runs until the time is spent.
    o.iterations = unsigned(envNumber("ESA_SOAK_ITERATIONS", o.seconds ? 1000000 : defaultIterations));
    if (const char* keep = std::getenv("ESA_SOAK_KEEP"); keep && *keep) o.keepDir = keep;
    return o;
}

// ---- the driver

struct SoakDriver::Round {
    unsigned number = 0;
    uint64_t driveSeed = 0;
    std::string crashPoint;  // empty: the board cuts
    std::string how;         // for messages
};

SoakDriver::SoakDriver(SoakOptions options, std::vector<std::unique_ptr<SoakWorkload>> workloads)
    : mOptions(std::move(options)), mWorkloads(std::move(workloads)), mRandom(mOptions.seed) {
    char tmpl[] = "/tmp/esa-soak-XXXXXX";
    mWork = ::mkdtemp(tmpl);
    mBoard = (mWork / "board").string();
    for (auto& w : mWorkloads) mLogs.push_back(std::make_unique<AckLog>(mWork / ("acks-" + w->name() + ".log")));
}

SoakDriver::~SoakDriver() {
    if (std::getenv("ESA_KEEP_TEST_BOARDS")) return;
    std::error_code ec;
    fs::remove_all(mWork, ec);
}

std::string SoakDriver::workingOutput(const std::string& name, const std::string& text) {
    fs::path file = mWork / name;
    std::ofstream(file) << text;
    return file.string();
}

std::map<std::string, std::string> SoakDriver::startEnvironment(uint64_t driveSeed) {
    std::map<std::string, std::string> env{{"ESA_DRIVE_SEED", std::to_string(driveSeed)}};
    for (auto& w : mWorkloads) w->environment(env);
    return env;
}

bool SoakDriver::startAndPrepare() {
    std::string create = esaBinary("esa-board") + " create " + mBoard + " --disks " + mOptions.disks + " >/dev/null";
    if (std::system(create.c_str()) != 0) return false;
    EsaProcess esa(mBoard, {}, startEnvironment(mRandom() % 1000000000));
    if (!esa.waitForConsole()) return false;
    for (size_t i = 0; i < mWorkloads.size(); ++i) {
        std::mt19937_64 random(mRandom());
        if (!mWorkloads[i]->prepare(mBoard, *mLogs[i], random)) {
            workingOutput("esa-prepare.out", esa.output());
            return false;
        }
    }
    // The workloads' first state reaches the disks before the first cut.
    runConsoleCommand(mBoard, "j2flush");
    esa.kill9();
    return true;
}

void SoakDriver::cutWhileWorking(Round& round, SoakTally& tally) {
    std::map<std::string, std::string> env = startEnvironment(round.driveSeed);
    if (!round.crashPoint.empty()) env["ESA_CRASH_AT"] = round.crashPoint;
    EsaProcess esa(mBoard, {}, env);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    if (esa.waitForConsole()) {
        for (size_t i = 0; i < mWorkloads.size(); ++i)
            threads.emplace_back([this, i, &stop, seed = mRandom()] {
                std::mt19937_64 random(seed);
                mWorkloads[i]->run(mBoard, *mLogs[i], random, stop);
            });
    }
    // The board draws the moment; a crash point not reached by then is
    // overtaken by the board's cut.
    const unsigned window = mOptions.cutWithinMs * (round.crashPoint.empty() ? 1 : 2);
    std::string cut = esaBinary("esa-board") + " cut " + mBoard + " --within " + std::to_string(window) +
                      " --seed " + std::to_string(mRandom()) + " >/dev/null 2>&1";
    if (esa.running()) (void)!std::system(cut.c_str());
    int status = esa.wait();
    if (!round.crashPoint.empty())
        round.how += esa.output().find("CRASH POINT reached") != std::string::npos ? ", reached"
                                                                                 : ", not reached: the board cut";
    stop = true;
    for (auto& t : threads) t.join();
    ++tally.cuts;
    if (status != 137) {
        tally.failures.push_back(round.how + ": esa ended with status " + std::to_string(status) +
                                 " instead of a power cut; output in " +
                                 workingOutput("esa-cut-" + std::to_string(round.number) + ".out", esa.output()));
    }
}

bool SoakDriver::restartAndCheck(Round& round, SoakTally& tally) {
    EsaProcess esa(mBoard, {}, startEnvironment(mRandom() % 1000000000));
    const std::string after = "after " + round.how;
    if (!esa.waitForConsole()) {
        tally.failures.push_back(after + ": the next start has no console; output in " +
                                 workingOutput("esa-restart.out", esa.output()));
        return false;
    }
    ConsoleResult state = runConsoleCommand(mBoard, "state DPM");
    if (state.output.find("DISK PACK IS LOADED") == std::string::npos) {
        tally.failures.push_back(after + ": the pack did not load:\n" + state.output);
        workingOutput("esa-restart.out", esa.output());
        return false;
    }
    ConsoleResult metacheck = runConsoleCommand(mBoard, "metacheck ext");
    if (metacheck.output.find("All checks passed OK.") == std::string::npos)
        tally.failures.push_back(after + ": metacheck ext is not clean:\n" + metacheck.output);
    const uint64_t lostBefore = tally.lost;
    for (size_t i = 0; i < mWorkloads.size(); ++i) mWorkloads[i]->check(mBoard, *mLogs[i], tally);
    runConsoleCommand(mBoard, "j2flush");
    workingOutput("esa-restart.out", esa.output());
    esa.kill9();
    // With the journal written out, the images alone must hold a consistent pack.
    const bool hadFailure = ::testing::Test::HasFailure();
    packimage::checkPackRecords(mBoard, diskCount(mOptions.disks));
    if (!hadFailure && ::testing::Test::HasFailure())
        tally.failures.push_back(after + ": the pack's records on the images are not consistent");
    return tally.lost == lostBefore && tally.failures.empty();
}

void SoakDriver::keepFailure(const Round& round, const SoakTally& tally) {
    fs::path keep = mOptions.keepDir.empty() ? fs::path("/tmp") : mOptions.keepDir;
    keep /= "esa-soak-failed-" + std::to_string(mOptions.seed) + "-" + std::to_string(round.number);
    std::error_code ec;
    fs::create_directories(keep, ec);
    // File by file: the board holds the console's socket, on which a
    // recursive copy stops, leaving the images and the outputs behind.
    for (auto it = fs::recursive_directory_iterator(mWork, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec)) {
        const fs::path to = keep / fs::relative(it->path(), mWork);
        std::error_code one;
        if (it->is_directory(one)) fs::create_directories(to, one);
        else if (it->is_regular_file(one)) fs::copy_file(it->path(), to, fs::copy_options::overwrite_existing, one);
    }
    std::ofstream(keep / "FAILURE") << "ESA_SOAK_SEED=" << mOptions.seed << " round " << round.number << " ("
                                    << round.how << ", ESA_DRIVE_SEED=" << round.driveSeed << ")\n"
                                    << tally.summary() << "\n";
    for (auto& f : tally.failures) std::ofstream(keep / "FAILURE", std::ios::app) << f << "\n";
    std::cout << "soak: failure kept in " << keep.string() << "\n";
}

SoakTally SoakDriver::run() {
    SoakTally tally;
    std::cout << "soak: ESA_SOAK_SEED=" << mOptions.seed << ", workloads";
    for (auto& w : mWorkloads) std::cout << " " << w->name();
    std::cout << std::endl;
    if (!startAndPrepare()) {
        tally.failures.push_back("the first start could not make the pack and prepare the workloads");
        keepFailure(Round{}, tally);
        return tally;
    }
    const auto start = std::chrono::steady_clock::now();
    for (unsigned n = 1; n <= mOptions.iterations; ++n) {
        if (mOptions.seconds &&
            std::chrono::steady_clock::now() - start >= std::chrono::seconds(mOptions.seconds))
            break;
        Round round;
        round.number = n;
        round.driveSeed = mRandom() % 1000000000;
        if (mRandom() % 100 < mOptions.crashPointPercent) {
            round.crashPoint = std::string(kCrashPoints[mRandom() % std::size(kCrashPoints)]) + ":" +
                               std::to_string(1 + mRandom() % 40);
            round.how = "cut " + std::to_string(n) + " at crash point " + round.crashPoint;
        } else {
            round.how = "cut " + std::to_string(n) + " by the board";
        }
        round.how += " (ESA_DRIVE_SEED=" + std::to_string(round.driveSeed) + ")";
        cutWhileWorking(round, tally);
        const uint64_t checkedBefore = tally.checked;
        if (!tally.failures.empty() || !restartAndCheck(round, tally)) {
            keepFailure(round, tally);
            break;
        }
        std::cout << "soak: " << round.how << ": " << tally.checked - checkedBefore << " acknowledged writes checked"
                  << std::endl;
    }
    std::cout << "soak: " << tally.summary() << std::endl;
    return tally;
}
