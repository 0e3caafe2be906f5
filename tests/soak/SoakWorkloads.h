#pragma once
// The soak's workloads, through the console and through iSCSI:
//
// - ZonePatternWorkload: seeded patterns over whole 64 KiB slots of Zones it
//   allocated for itself (writeVerifyZM). An acknowledged write must read
//   back with its seed after any cut; a write in flight at the cut may have
//   left its slot in any state, and the slot is not checked until a later
//   write to it is acknowledged.
// - ZoneChurnWorkload: Zones allocated and freed (alloczones,
//   deallocateZone), each one a journal set. An acknowledged allocation must
//   still be in use after any cut, an acknowledged free no longer, unless a
//   request in flight at the cut could have changed it since.
// - HostWriteWorkload: a host writing self-describing sectors to LUN 0 over
//   iSCSI, 512 B to 128 KiB at 512-byte alignment over a small area so that
//   writes overlap. After any cut every sector must hold the last
//   acknowledged write that covers it, or a write issued after that one that
//   was in flight at a cut.
#include "tests/soak/SoakDriver.h"

class ZonePatternWorkload : public SoakWorkload {
public:
    static constexpr unsigned kZones = 2;
    static constexpr unsigned kSlots = 16;
    static constexpr uint32_t kSlotBytes = 0x10000;
    std::string name() const override { return "zonepattern"; }
    bool prepare(const std::string& board, AckLog& log, std::mt19937_64& random) override;
    void run(const std::string& board, AckLog& log, std::mt19937_64& random, const std::atomic<bool>& stop) override;
    void check(const std::string& board, const AckLog& log, SoakTally& tally) override;
};

class ZoneChurnWorkload : public SoakWorkload {
public:
    static constexpr size_t kMostLive = 6;
    std::string name() const override { return "zonechurn"; }
    void run(const std::string& board, AckLog& log, std::mt19937_64& random, const std::atomic<bool>& stop) override;
    void check(const std::string& board, const AckLog& log, SoakTally& tally) override;
};

class HostWriteWorkload : public SoakWorkload {
public:
    static constexpr uint64_t kAreaStart = 2048;    // sectors
    static constexpr uint32_t kAreaSectors = 8192;  // 4 MiB
    static constexpr uint32_t kMostSectors = 256;   // 128 KiB
    std::string name() const override { return "hostwrite"; }
    // Each start listens on a port chosen free for it.
    void environment(std::map<std::string, std::string>& env) override;
    void run(const std::string& board, AckLog& log, std::mt19937_64& random, const std::atomic<bool>& stop) override;
    void check(const std::string& board, const AckLog& log, SoakTally& tally) override;

private:
    uint16_t mPort = 0;  // of the latest start
};
