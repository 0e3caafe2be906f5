#include "cache/DiskLBAMetaDataTracker.h"


DiskLBAMetaDataTracker* DiskLBAMetaDataTracker::GetInstance() {
    static DiskLBAMetaDataTracker instance;
    return &instance;
}
