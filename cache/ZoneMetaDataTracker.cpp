#include "cache/ZoneMetaDataTracker.h"


ZoneMetaDataTracker* ZoneMetaDataTracker::GetInstance() {
    static ZoneMetaDataTracker instance;
    return &instance;
}
