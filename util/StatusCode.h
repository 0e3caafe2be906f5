#pragma once
// StatusCode: the result of nearly every operation. A value type around one
// 32-bit integer; 0 is Success, so `if (status != 0)` is the common test. The
// high byte groups the values by subsystem.
#include <cstdint>
#include <ostream>
#include <string>

class StatusCode {
public:
    enum Value : uint32_t {
        Success = 0x00, ReadError = 0x01, WriteError = 0x02, DiskError = 0x03, DiskNotReady = 0x04,
        DiskNotPresent = 0x05, DiskRemoved = 0x06, DiskInserted = 0x07, DiskClosed = 0x08, RetryRequest = 0x09,
        MediaError = 0x0a, BadRegion = 0x0b, BadCommand = 0x0c, BufferTooSmall = 0x0d, InitFailed = 0x0e,
        OutOfSpace = 0x0f, InternalError = 0x10, UnknownMgmtSubpage = 0x11, UnknownScsiRequest = 0x12,
        FunctionNotImplemented = 0x13, UnknownTransaction = 0x14, NoMoreLuns = 0x15, CorruptedZone0Entry = 0x16,
        ExpungeDeclined = 0x17, DiskPackNotLoaded = 0x18, ReadOnlyMode = 0x19, NoMoreLogicalDisks = 0x1a,
        NotExecuted = 0x1b, BadAlarm = 0x1c, BadIOLength = 0x1d, BadSignature = 0x1e, BadMetadataCRC = 0x1f,
        InvalidLun = 0x20, LunIdMismatch = 0x21,
        FailedRegion = 0x100,
        RM_ZISInvalidRegion = 0x200, RM_AllocateFailed = 0x201, RM_NoDisks = 0x202, RM_DiskExists = 0x203,
        RM_BadOffset = 0x204, RM_NotEnoughFree = 0x205, RM_RegionNotAllocated = 0x206,
        RM_IncompatibleRegionSize = 0x207, RM_MetaDataBad = 0x208, RM_RegionNumberInvalid = 0x209,
        RM_NoDPMMetaData = 0x20a, RM_J2NOtWritable = 0x20b,
        ZoneOverflow = 0x300, UnsupportedZoneType = 0x301, ZM_BadPrimaryZIS = 0x302, ZM_BadSecondaryZIS = 0x303,
        ZM_BadTertiaryZIS = 0x304, InvalidZoneNumber = 0x305, BadMetadata = 0x306, VerifyFailure = 0x307,
        ZM_UnusableRegion = 0x308, LM_LayoutAborted = 0x309,
        CM_ClusterZoneFull = 0x400, CM_InvalidZoneOffset = 0x401, CM_InvalidZoneNumber = 0x402,
        CM_TooManyClusters = 0x403, CM_ZeroClusters = 0x404, CM_InvalidIndex = 0x405,
        CM_LoadClusterFailed = 0x406, CM_InvalidCluster = 0x407, CM_ClusterAlreadyFree = 0x408,
        CM_TooManyRuns = 0x409, CM_ClusterAlreadyAllocated = 0x40a,
        CATM_LBAOutOfRange = 0x600,
        CLT_CATNotCompleted = 0x800, CLT_CachedDataNotConsistent = 0x801, CLT_ZoneIndexOutOfRange = 0x802,
        CLT_BadHash = 0x803, CLT_InvalidRecord = 0x804,
        DDM_InvalidSlotNumber = 0xa00, DDM_OpenLEDPortFailed = 0xa01,
        MP_NoFreeEntriesOnLRU = 0xb00, CACHE_InvalidRange = 0xb01, CACHE_InvalidSet = 0xb02,
        CACHE_InvalidLength = 0xb03, CACHE_LockInUse = 0xb04, LockHasBeenDeleted = 0xb05,
        J1_NoTags = 0xc00,
        DM_QueueTimeout = 0xd00, DM_DeviceTimeout = 0xd01, DM_DeviceTimeoutFlush = 0xd02,
        DM_RecoveredError = 0xd03, DM_RecoveredChannel = 0xd04, DM_RecoveredTimeout = 0xd05,
        DM_MediaError = 0xd06, DM_ChannelFailure = 0xd07, DM_DriveStartFailure = 0xd08,
        DM_DiskAlreadyFlushed = 0xd09, DM_SGLTooLong = 0xd0a,
        CS_HostMetadataNotFound = 0xe00, CS_OnDiskMetadataOutOfSpace = 0xe01,
        FLASH_WriteFail = 0xf00, FLASH_ReadFail = 0xf01, LastStatusCode = 0xf02,
    };

    constexpr StatusCode() : mValue(Success) {}
    constexpr StatusCode(Value v) : mValue(v) {}
    constexpr explicit StatusCode(uint32_t v) : mValue(v) {}

    constexpr uint32_t value() const { return mValue; }
    constexpr operator uint32_t() const { return mValue; }
    constexpr bool ok() const { return mValue == Success; }
    // No space to place a write: the pack, a Zone's Regions or the cluster pool.
    constexpr bool isSpaceShortage() const {
        return mValue == OutOfSpace || mValue == RM_NotEnoughFree || mValue == CM_ZeroClusters;
    }

    // The name without the "StatusCode::" prefix, or null for a value outside the table.
    static const char* Name(uint32_t value);
    // "StatusCode::Name", or the unknown text with the value.
    std::string Dump() const;

private:
    uint32_t mValue;
};

std::ostream& operator<<(std::ostream& os, const StatusCode& status);
