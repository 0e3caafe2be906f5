#pragma once
// SystemDrivePackInfo: the one global record of the loaded pack's geometry:
// RegionSize, ZoneSize, ClusterSize and MaxDefaultLBA, each with a set flag.
// RegionSize is set by the Region layer when it creates or reads the first
// disk, ZoneSize by the Zone table. Reading a value before it is set is a
// broken invariant: it prints who asked too early and asserts.
#include <atomic>
#include <cstdint>

#include "util/Assert.h"
#include "util/Trace.h"

class SystemDrivePackInfo {
public:
    enum Field { RegionSize = 0, ZoneSize, ClusterSize, MaxDefaultLBA, kFields };

    static SystemDrivePackInfo* GetInstance() {
        static SystemDrivePackInfo instance;
        return &instance;
    }

    uint64_t get(Field field) const {
        if (!mSet[field].load(std::memory_order_acquire)) {
            ESA_CONSOLE("**** Someone is trying to get '" << kNames[field] << "' before it's been set! ****");
            ESA_ASSERT_OP(mSet[field].load(), ==, true);
        }
        return mValue[field].load(std::memory_order_relaxed);
    }
    bool isSet(Field field) const { return mSet[field].load(std::memory_order_acquire); }
    void set(Field field, uint64_t value) {
        ESA_CONSOLE("*** Someone is setting '" << kNames[field] << "' to '" << value << "'"
                                                << (isSet(field) ? " after it has already been set ***" : " ***"));
        mValue[field].store(value, std::memory_order_relaxed);
        mSet[field].store(true, std::memory_order_release);
    }
    void unset(Field field) { mSet[field].store(false, std::memory_order_release); }

    uint64_t GetRegionSize() const { return get(RegionSize); }
    uint64_t GetZoneSize() const { return get(ZoneSize); }

private:
    static constexpr const char* kNames[kFields] = {"RegionSize", "ZoneSize", "ClusterSize", "MaxDefaultLBA"};
    std::atomic<uint64_t> mValue[kFields] = {};
    std::atomic<bool> mSet[kFields] = {};
};
