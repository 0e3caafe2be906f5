#pragma once
// SoakDriver: the power-cut soak. Start after start it runs the real esa on a
// board of its own with a mix of workloads in flight, cuts the power at a
// moment the board draws (`esa-board cut --within`) or at a named crash point
// (ESA_CRASH_AT), starts again, and checks that nothing acknowledged is lost:
// every workload checks every acknowledgement its log holds against the
// restarted esa, and with the journal written out the pack's records on the
// images must be valid and consistent (tests/support/PackChecks.h).
//
// A workload is anything that sends requests and keeps an acknowledgement
// log (AckLog): the intent of a request before it goes, the acknowledgement
// after it succeeded, each line fsynced, so that the log is the driver's
// durable truth across the cut. A request in flight at the cut (an intent with
// no acknowledgement) may have left its range in any state and is not checked.
// Workloads are independent: each runs on its own thread with its own log and
// generator, so a host-side workload (an initiator with an acknowledgement
// log) is one more SoakWorkload.
//
// Every run prints its seed (ESA_SOAK_SEED replays the cut moments, the crash
// points, the workloads' choices and each start's ESA_DRIVE_SEED) and keeps a
// copy of the board, the logs and the esa output of any failure.
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

struct SoakTally {
    uint64_t cuts = 0;     // power cuts made, by the board or at crash points
    uint64_t checked = 0;  // acknowledged writes checked after the cuts
    uint64_t lost = 0;     // of those, missing or wrong
    std::vector<std::string> failures;  // what went wrong, one line each
    std::string summary() const;        // "N cuts, N acknowledged writes checked, N lost"
};

// The acknowledgement log of one workload: one line a record, fsynced.
class AckLog {
public:
    explicit AckLog(std::filesystem::path file);
    ~AckLog();
    void intent(const std::string& request);
    void ack(const std::string& result);
    // A request that came back with an error (kept for the reader of the log;
    // its intent stays unacknowledged).
    void refused(const std::string& why);
    struct Entry {
        std::string request;  // the intent
        bool acknowledged = false;
        std::string result;   // the acknowledgement, when there is one
    };
    // The log as entries, in order. A workload sends one request at a time, so
    // an intent is acknowledged when the line after it is its acknowledgement.
    std::vector<Entry> entries() const;
    const std::filesystem::path& file() const { return mFile; }

private:
    void append(const std::string& line);
    std::filesystem::path mFile;
    int mFd = -1;
};

class SoakWorkload {
public:
    virtual ~SoakWorkload() = default;
    virtual std::string name() const = 0;
    // What every start of esa needs for this workload (a host-side workload:
    // the portal it connects to, ESA_PORTAL on a free port).
    virtual void environment(std::map<std::string, std::string>& env) {}
    // Once, on the first start, before any cut (for example the workload's own Zones).
    virtual bool prepare(const std::string& board, AckLog& log, std::mt19937_64& random) { return true; }
    // Runs against the esa on the board until `stop` or until the esa is gone.
    virtual void run(const std::string& board, AckLog& log, std::mt19937_64& random, const std::atomic<bool>& stop) = 0;
    // After a restart: checks every acknowledgement of the log against the esa.
    virtual void check(const std::string& board, const AckLog& log, SoakTally& tally) = 0;
};

struct SoakOptions {
    uint64_t seed = 0;
    unsigned iterations = 4;
    unsigned seconds = 0;             // 0: no time bound
    std::string disks = "8G,8G,8G,12G";
    unsigned cutWithinMs = 2500;      // the board draws the cut moment in this window
    unsigned crashPointPercent = 30;  // share of the cuts made at a named crash point
    std::filesystem::path keepDir;    // where a failure's board goes; default /tmp
    // From ESA_SOAK_SEED, ESA_SOAK_ITERATIONS, ESA_SOAK_SECONDS, ESA_SOAK_KEEP.
    static SoakOptions fromEnvironment(unsigned defaultIterations);
};

class SoakDriver {
public:
    SoakDriver(SoakOptions options, std::vector<std::unique_ptr<SoakWorkload>> workloads);
    ~SoakDriver();
    // Runs the soak until the iterations or the seconds are spent, or the first failure.
    SoakTally run();

private:
    struct Round;
    bool startAndPrepare();
    void cutWhileWorking(Round& round, SoakTally& tally);
    bool restartAndCheck(Round& round, SoakTally& tally);
    void keepFailure(const Round& round, const SoakTally& tally);
    std::string workingOutput(const std::string& name, const std::string& text);
    // The environment of one start: its drive seed and what the workloads need.
    std::map<std::string, std::string> startEnvironment(uint64_t driveSeed);

    SoakOptions mOptions;
    std::vector<std::unique_ptr<SoakWorkload>> mWorkloads;
    std::vector<std::unique_ptr<AckLog>> mLogs;
    std::filesystem::path mWork;  // the soak's directory: board/, the logs, esa outputs
    std::string mBoard;
    std::mt19937_64 mRandom;
};
