#pragma once
// ScsiSense: the sense key and additional sense code of a CHECK CONDITION,
// and their fixed-format sense data. senseForStatus() maps the status a
// backend returns for a command onto the sense the host sees.
#include <cstdint>
#include <vector>

#include "util/StatusCode.h"

namespace scsi {

constexpr uint8_t kStatusGood = 0x00, kStatusCheckCondition = 0x02, kStatusBusy = 0x08,
                  kStatusTaskSetFull = 0x28;
constexpr uint8_t kKeyNoSense = 0x0, kKeyNotReady = 0x2, kKeyMediumError = 0x3, kKeyHardwareError = 0x4,
                  kKeyIllegalRequest = 0x5, kKeyUnitAttention = 0x6, kKeyDataProtect = 0x7,
                  kKeyAbortedCommand = 0xb;

struct Sense {
    uint8_t key = kKeyNoSense;
    uint8_t asc = 0;
    uint8_t ascq = 0;
    bool operator==(const Sense&) const = default;
};

inline constexpr Sense kInvalidOpcode{kKeyIllegalRequest, 0x20, 0x00};
inline constexpr Sense kInvalidFieldInCdb{kKeyIllegalRequest, 0x24, 0x00};
inline constexpr Sense kLbaOutOfRange{kKeyIllegalRequest, 0x21, 0x00};
inline constexpr Sense kLunNotSupported{kKeyIllegalRequest, 0x25, 0x00};
inline constexpr Sense kSavingNotSupported{kKeyIllegalRequest, 0x39, 0x00};
inline constexpr Sense kInvalidFieldInInformationUnit{kKeyIllegalRequest, 0x0e, 0x03};
inline constexpr Sense kDataPhaseError{kKeyAbortedCommand, 0x4b, 0x00};
inline constexpr Sense kMediumNotPresent{kKeyNotReady, 0x3a, 0x00};
inline constexpr Sense kNotReadyBecoming{kKeyNotReady, 0x04, 0x01};
inline constexpr Sense kUnrecoveredReadError{kKeyMediumError, 0x11, 0x00};
inline constexpr Sense kWriteError{kKeyMediumError, 0x0c, 0x00};
inline constexpr Sense kInternalTargetFailure{kKeyHardwareError, 0x44, 0x00};
inline constexpr Sense kWriteProtected{kKeyDataProtect, 0x27, 0x00};
inline constexpr Sense kSpaceExhausted{kKeyDataProtect, 0x27, 0x07};
inline constexpr Sense kReportedLunsDataChanged{kKeyUnitAttention, 0x3f, 0x0e};
inline constexpr Sense kCapacityDataChanged{kKeyUnitAttention, 0x2a, 0x09};

// 18 bytes of fixed-format (response code 0x70) sense data.
std::vector<uint8_t> fixedSenseData(const Sense& sense);

// The sense for a backend status on a command that moved data in the given
// direction. Success has no sense (key NO SENSE).
Sense senseForStatus(StatusCode status, bool write);

}  // namespace scsi
