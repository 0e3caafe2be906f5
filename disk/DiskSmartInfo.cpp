#include "disk/DiskSmartInfo.h"

namespace SmartData {

uint8_t badness(uint8_t v) {
    if (v <= 100) return uint8_t(100 - v);
    if (v <= 200) return uint8_t(200 - v);
    return uint8_t(253 - v);
}

bool parse(const uint8_t data[512], diskSmartInfo& info) {
    bool rawTemperature = data[0] == 0x10;  // table revision 0x10 keeps degrees in the raw value
    for (unsigned i = 0; i < kEntries; ++i) {
        const uint8_t* e = data + kFirstEntry + i * kEntryBytes;
        switch (e[0]) {
        case kTemperatureId:
            info.temperature = rawTemperature ? e[5] : e[3];
            return true;
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
    return false;
}

}  // namespace SmartData
