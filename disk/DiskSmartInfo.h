#pragma once
// diskSmartInfo: four bytes per slot as reported to management: temperature in
// degrees, then for SMART attributes 1 (raw read errors), 5 (reallocated
// sectors) and 0xC6 (offline uncorrectable) a badness on a 0-to-100 scale.
// The parsing of the drive's 512-byte SMART data lives here.
#include <cstdint>

struct diskSmartInfo {
    uint8_t temperature;
    uint8_t rawReadErrors;
    uint8_t reallocatedSectors;
    uint8_t offlineUncorrectable;
};
static_assert(sizeof(diskSmartInfo) == 4);

namespace SmartData {
constexpr unsigned kEntries = 30, kEntryBytes = 12, kFirstEntry = 2;
constexpr uint8_t kTemperatureId = 0xc2, kRawReadErrorId = 1, kReallocatedId = 5, kUncorrectableId = 0xc6;
// The normalised value v as badness: 100 - v up to 100, 200 - v up to 200, else 253 - v.
uint8_t badness(uint8_t value);
// Reads the thirty entries. True when a temperature was found.
bool parse(const uint8_t data[512], diskSmartInfo& info);
}  // namespace SmartData
