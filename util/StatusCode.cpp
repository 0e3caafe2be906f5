#include "util/StatusCode.h"

#include <sstream>

namespace {
struct Entry {
    uint32_t value;
    const char* name;
};
const Entry kTable[] = {
    {0x00, "Success"},
    {0x01, "ReadError"},
    {0x02, "WriteError"},
    {0x03, "DiskError"},
    {0x04, "DiskNotReady"},
    {0x05, "DiskNotPresent"},
    {0x06, "DiskRemoved"},
    {0x07, "DiskInserted"},
    {0x08, "DiskClosed"},
    {0x09, "RetryRequest"},
    {0x0a, "MediaError"},
    {0x0b, "BadRegion"},
    {0x0c, "BadCommand"},
    {0x0d, "BufferTooSmall"},
    {0x0e, "InitFailed"},
    {0x0f, "OutOfSpace"},
    {0x10, "InternalError"},
    {0x11, "UnknownMgmtSubpage"},
    {0x12, "UnknownScsiRequest"},
    {0x13, "FunctionNotImplemented"},
    {0x14, "UnknownTransaction"},
    {0x15, "NoMoreLuns"},
    {0x16, "CorruptedZone0Entry"},
    {0x17, "ExpungeDeclined"},
    {0x18, "DiskPackNotLoaded"},
    {0x19, "ReadOnlyMode"},
    {0x1a, "NoMoreLogicalDisks"},
    {0x1b, "NotExecuted"},
    {0x1c, "BadAlarm"},
    {0x1d, "BadIOLength"},
    {0x1e, "BadSignature"},
    {0x1f, "BadMetadataCRC"},
    {0x20, "InvalidLun"},
    {0x21, "LunIdMismatch"},
    {0x100, "FailedRegion"},
    {0x200, "RM_ZISInvalidRegion"},
    {0x201, "RM_AllocateFailed"},
    {0x202, "RM_NoDisks"},
    {0x203, "RM_DiskExists"},
    {0x204, "RM_BadOffset"},
    {0x205, "RM_NotEnoughFree"},
    {0x206, "RM_RegionNotAllocated"},
    {0x207, "RM_IncompatibleRegionSize"},
    {0x208, "RM_MetaDataBad"},
    {0x209, "RM_RegionNumberInvalid"},
    {0x20a, "RM_NoDPMMetaData"},
    {0x20b, "RM_J2NOtWritable"},
    {0x300, "ZoneOverflow"},
    {0x301, "UnsupportedZoneType"},
    {0x302, "ZM_BadPrimaryZIS"},
    {0x303, "ZM_BadSecondaryZIS"},
    {0x304, "ZM_BadTertiaryZIS"},
    {0x305, "InvalidZoneNumber"},
    {0x306, "BadMetadata"},
    {0x307, "VerifyFailure"},
    {0x308, "ZM_UnusableRegion"},
    {0x309, "LM_LayoutAborted"},
    {0x400, "CM_ClusterZoneFull"},
    {0x401, "CM_InvalidZoneOffset"},
    {0x402, "CM_InvalidZoneNumber"},
    {0x403, "CM_TooManyClusters"},
    {0x404, "CM_ZeroClusters"},
    {0x405, "CM_InvalidIndex"},
    {0x406, "CM_LoadClusterFailed"},
    {0x407, "CM_InvalidCluster"},
    {0x408, "CM_ClusterAlreadyFree"},
    {0x409, "CM_TooManyRuns"},
    {0x40a, "CM_ClusterAlreadyAllocated"},
    {0x600, "CATM_LBAOutOfRange"},
    {0x800, "CLT_CATNotCompleted"},
    {0x801, "CLT_CachedDataNotConsistent"},
    {0x802, "CLT_ZoneIndexOutOfRange"},
    {0x803, "CLT_BadHash"},
    {0x804, "CLT_InvalidRecord"},
    {0xa00, "DDM_InvalidSlotNumber"},
    {0xa01, "DDM_OpenLEDPortFailed"},
    {0xb00, "MP_NoFreeEntriesOnLRU"},
    {0xb01, "CACHE_InvalidRange"},
    {0xb02, "CACHE_InvalidSet"},
    {0xb03, "CACHE_InvalidLength"},
    {0xb04, "CACHE_LockInUse"},
    {0xb05, "LockHasBeenDeleted"},
    {0xc00, "J1_NoTags"},
    {0xd00, "DM_QueueTimeout"},
    {0xd01, "DM_DeviceTimeout"},
    {0xd02, "DM_DeviceTimeoutFlush"},
    {0xd03, "DM_RecoveredError"},
    {0xd04, "DM_RecoveredChannel"},
    {0xd05, "DM_RecoveredTimeout"},
    {0xd06, "DM_MediaError"},
    {0xd07, "DM_ChannelFailure"},
    {0xd08, "DM_DriveStartFailure"},
    {0xd09, "DM_DiskAlreadyFlushed"},
    {0xd0a, "DM_SGLTooLong"},
    {0xe00, "CS_HostMetadataNotFound"},
    {0xe01, "CS_OnDiskMetadataOutOfSpace"},
    {0xf00, "FLASH_WriteFail"},
    {0xf01, "FLASH_ReadFail"},
    {0xf02, "LastStatusCode"},
};
}  // namespace

const char* StatusCode::Name(uint32_t value) {
    for (const Entry& e : kTable)
        if (e.value == value) return e.name;
    return nullptr;
}

std::string StatusCode::Dump() const {
    std::ostringstream os;
    os << *this;
    return os.str();
}

std::ostream& operator<<(std::ostream& os, const StatusCode& status) {
    if (const char* name = StatusCode::Name(status.value())) return os << "StatusCode::" << name;
    return os << "*** ERROR - UNKNOWN STATUSCODE (" << status.value() << ") ***";
}
