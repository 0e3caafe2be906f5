#include "disk/DiskSmartInfo.h"

namespace SmartData {

uint8_t badness(uint8_t v) {
    if (v <= 100) return uint8_t(100 - v);
    if (v <= 200) return uint8_t(200 - v);
    return uint8_t(253 - v);
}

bool parse(const uint8_t data[512], diskSmartInfo& info) {
    bool rawTemperature = data[0] == 0x10;  // table revision 0x10 keeps degrees in the raw value
    bool found = false;
    // Drives list their attributes by rising id, so 0xC6 comes after the
    // temperature (0xC2): the whole table is read, or the offline
    // uncorrectable count would never be reported.
    for (unsigned i = 0; i < kEntries; ++i) {
        const uint8_t* e = data + kFirstEntry + i * kEntryBytes;
        switch (e[0]) {
        case kTemperatureId:
            if (!found) info.temperature = rawTemperature ? e[5] : e[3];
            found = true;
            break;
        case kRawReadErrorId:
            info.rawReadErrors = badness(e[3]);
            break;
        case kReallocatedId:
            info.reallocatedSectors = badness(e[3]);
            break;
        case kUncorrectableId:
            info.offlineUncorrectable = badness(e[3]);
            break;
        default:
            break;
        }
    }
    return found;
}

}  // namespace SmartData
