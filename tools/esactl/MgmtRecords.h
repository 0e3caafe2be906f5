#pragma once
// The management records as esactl reads them, and the JSON it prints. The
// JSON names are part of esactl's interface (README.md lists them): scripts
// rely on them, so they change only by adding.
#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/esactl/MgmtClient.h"

namespace esactl {

// Everything the status commands show, read page by page.
struct Snapshot {
    bool packLoaded = false;
    std::string name;
    uint32_t clock = 0;
    int protocolMajor = 0, protocolMinor = 0;
    std::string firmware;
    uint32_t statusBits = 0, zonesInDanger = 0, notLoadedReason = 0;
    uint64_t freeBytes = 0, usedBytes = 0, totalBytes = 0, unprotectedBytes = 0;
    int lowThreshold = 0, highThreshold = 0;  // hundredths of a percent
    bool unprotectedSpaceOn = false;
    struct Slot {
        int slot = 0;
        uint64_t sizeBytes = 0;
        int colour = 0;
        bool notInPack = false;
        std::string model;
        int errors = 0, temperature = 0;
        int packFlags = 0;  // from the disk pack page: 0x80 empty, 0x40 expunged, 0x20 no DIS, 0x10 absent member
        uint32_t packGeneration = 0;
        std::string packName;
    };
    std::vector<Slot> slots;
    struct Lun {
        int lun = 0;
        uint64_t sizeBytes = 0;
        int format = 0;
        int uniqueId = 0;
    };
    std::vector<Lun> luns;
    int lunCount = 0;
};

// Reads the pages; false with `error` (and `refused` when the appliance
// answered with a refusal, not silence or a malformed record).
bool readSnapshot(MgmtClient& client, Snapshot& snap, std::string& error, bool& refused);

// "1.5 GiB": bytes for people.
std::string bytesText(uint64_t bytes);
std::string colourName(int colour);  // "off", "red", ..., "flash-red-yellow"
std::string slotState(const Snapshot::Slot& s);
std::vector<std::string> statusFlagNames(uint32_t bits);
// The used bytes of one LUN; -1 when the pack-wide figure cannot be split.
int64_t lunUsedBytes(const Snapshot& snap, const Snapshot::Lun& lun);
uint64_t rawTotalBytes(const Snapshot& snap);
uint64_t rawUsedBytes(const Snapshot& snap);
int meterPercent(const Snapshot& snap);

nlohmann::json statusJson(const Snapshot& snap);
nlohmann::json slotsJson(const Snapshot& snap);
nlohmann::json capacityJson(const Snapshot& snap);
nlohmann::json lunsJson(const Snapshot& snap);
nlohmann::json lightsJson(const Snapshot& snap);

// The event log lines, read from the locked diagnostics stream.
bool readEvents(MgmtClient& client, std::vector<std::string>& events, std::string& error);

}  // namespace esactl
