#include "scavenger/OnDiskStore.h"


OnDiskStore* OnDiskStore::GetInstance() {
    static OnDiskStore instance;
    return &instance;
}
