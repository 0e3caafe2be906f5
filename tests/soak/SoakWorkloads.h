#pragma once
// The soak's workloads through the console, until the host path exists:
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
