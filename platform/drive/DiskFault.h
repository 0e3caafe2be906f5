#pragma once
// DiskFault: one fault armed on a simulated disk: what fails, on which LBA
// range and direction, how often. Kept in the disk's sidecar so that a fault
// set on the board before a start is met by the running system.
//
// Text form (esa-board fault, console injectError):
//   KIND [read|write|any] [lba=A[-B]] [once|always|times=N] [ms=N] [queries=N]
// KIND: media, recovered, recoveredchannel, channel, accesstimeout,
// channeltimeout, notpresent, startfailure, sizezero, latency.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

struct DiskFault {
    enum class Kind {
        Media, Recovered, RecoveredChannel, Channel, AccessTimeout, ChannelTimeout, NotPresent, StartFailure,
        SizeZero, Latency
    };
    enum class Direction { Any, Read, Write };

    Kind kind = Kind::Media;
    Direction direction = Direction::Any;
    uint64_t firstLba = 0;
    uint64_t lastLba = UINT64_MAX;
    int remaining = -1;     // firings left; -1 always
    uint32_t value = 0;     // latency: milliseconds; sizezero: number of size queries

    bool matches(bool write, uint64_t lba, uint64_t sectors) const;

    static std::optional<DiskFault> parse(const std::vector<std::string>& words, std::string& error);
    static const char* kindName(Kind k);
    std::string describe() const;
    nlohmann::json toJson() const;
    static std::optional<DiskFault> fromJson(const nlohmann::json& j);
};
