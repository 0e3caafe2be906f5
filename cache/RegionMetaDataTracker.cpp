#include "cache/RegionMetaDataTracker.h"


RegionMetaDataTracker* RegionMetaDataTracker::GetInstance() {
    static RegionMetaDataTracker instance;
    return &instance;
}
