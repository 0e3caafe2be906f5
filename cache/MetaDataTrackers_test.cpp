// The "zmdt", "rmdt" and "hlbat" instances: their figures, and that a layer
// below that cannot read yet leaves nothing cached and says so.
#include <gtest/gtest.h>

#include "cache/CacheTrackerObject.h"
#include "cache/HostLbaTracker.h"
#include "cache/RegionMetaDataTracker.h"
#include "cache/ZoneMetaDataTracker.h"

namespace {

TEST(MetaDataTrackers, InstancesCarryTheirNamesSizesAndPools) {
    ZoneMetaDataTracker* z = ZoneMetaDataTracker::GetInstance();
    RegionMetaDataTracker* r = RegionMetaDataTracker::GetInstance();
    EXPECT_STREQ(z->CacheName(), "ZMDT");
    EXPECT_EQ(z->pool().numEntries(), 750u);
    EXPECT_EQ(z->pool().blockSize(), 4096u);
    EXPECT_EQ(z->pool().name(), "lZMDTLockMemPool");
    EXPECT_EQ(z->GetElementSize(), 512u);
    EXPECT_EQ(z->consoleName(), "zmdt");
    EXPECT_STREQ(r->CacheName(), "RMDT");
    EXPECT_EQ(r->pool().numEntries(), 400u);
    EXPECT_EQ(r->pool().blockSize(), 512u);
    EXPECT_EQ(r->consoleName(), "rmdt");
}

// With no pack loaded there is no Zone and no Region geometry: reads and
// writes through the metadata caches fail with a status and leave nothing cached.
TEST(MetaDataTrackers, WithoutAPackReadsFailAndCacheNothing) {
    ZoneMetaDataTracker* z = ZoneMetaDataTracker::GetInstance();
    RegionMetaDataTracker* r = RegionMetaDataTracker::GetInstance();
    unsigned char buf[1024] = {};
    IOTracker t(READ_ONLY);
    EXPECT_EQ(z->ReadThroughCache(buf, 2, 5, 4096, t), StatusCode::InvalidZoneNumber);
    EXPECT_TRUE(z->view(5).empty());
    CacheTrackerObject* cto = nullptr;
    EXPECT_EQ(r->LockAndLookupRange(1, 0, 2, cto, t), StatusCode::DiskPackNotLoaded);
    EXPECT_TRUE(r->view(1).empty());
    IOTracker w(READ_WRITE);
    EXPECT_NE(z->ClearZoneSection(5, 0, 300, w), StatusCode::Success);
    EXPECT_TRUE(z->view(5).empty());
}

TEST(MetaDataTrackers, HostCacheServesLunsFromTheSharedReadBuffer) {
    HostLbaTracker* h = HostLbaTracker::GetInstance();
    EXPECT_EQ(h->pool().numEntries(), 3060u);
    EXPECT_EQ(h->pool().blockSize(), 32768u);
    IOTracker t(READ_ONLY);
    CacheTrackerObject* cto = nullptr;
    EXPECT_EQ(h->LockRange(32, 0, 8, cto, t), StatusCode::CACHE_InvalidSet);
    ASSERT_EQ(h->LockAndLookupRangeNoRead(3, 64, 8, cto, t), StatusCode::Success);
    EXPECT_EQ(cto->mWindow.GetLength(), 4096u);
    h->UnlockRange(cto);
    EXPECT_EQ(h->view(3).size(), 1u);
    h->Flush(0);
    EXPECT_EQ(h->pool().freeCount(), 3060u);
}

}  // namespace

#include <sstream>

#include "util/ConsoleCommand.h"

namespace {

TEST(CacheConsole, StatePerfAndDumpSectorsReachTheCaches) {
    std::ostringstream out;
    ConsoleCommand::ExecuteLine("state dlbat", out);
    EXPECT_NE(out.str().find("DLBAT CACHE RANGE TRACKER'S STATE"), std::string::npos) << out.str();
    EXPECT_NE(out.str().find("Pool lDLBATLockMemPool"), std::string::npos);
    out.str("");
    ConsoleCommand::ExecuteLine("perf zmdt", out);
    EXPECT_NE(out.str().find("Cache Lock timings:"), std::string::npos) << out.str();
    out.str("");
    EXPECT_NE(ConsoleCommand::ExecuteLine("dumpSectors nosuch 0 0", out), 0);
    EXPECT_NE(out.str().find("usage: dumpSectors"), std::string::npos);
    out.str("");
    // The host cache reads through the LUN map: with no pack loaded, there
    // is no LUN to read.
    EXPECT_NE(ConsoleCommand::ExecuteLine("dumpSectors hlbat 1 0 1", out), 0);
    EXPECT_EQ(out.str().find("00000000:"), std::string::npos);
    out.str("");
    EXPECT_EQ(ConsoleCommand::ExecuteLine("cacheFlush hlbat", out), 0);
    EXPECT_NE(out.str().find("HLBAT flushed"), std::string::npos);
    out.str("");
    ConsoleCommand::ExecuteLine("poolInfo", out);
    EXPECT_NE(out.str().find("CacheRangeObject ObjectPool Info: "), std::string::npos);
}

}  // namespace
