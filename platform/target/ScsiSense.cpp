#include "platform/target/ScsiSense.h"

namespace scsi {

std::vector<uint8_t> fixedSenseData(const Sense& sense) {
    std::vector<uint8_t> d(18, 0);
    d[0] = 0x70;
    d[2] = sense.key & 0x0f;
    d[7] = 10;  // additional sense length
    d[12] = sense.asc;
    d[13] = sense.ascq;
    return d;
}

Sense senseForStatus(StatusCode status, bool write) {
    switch (status.value()) {
    case StatusCode::Success:
        return Sense{};
    case StatusCode::DiskNotReady:
    case StatusCode::DiskPackNotLoaded:
        return kNotReadyBecoming;
    case StatusCode::CATM_LBAOutOfRange:
        return kLbaOutOfRange;
    case StatusCode::InvalidLun:
    case StatusCode::LunIdMismatch:
        return kLunNotSupported;
    case StatusCode::UnknownScsiRequest:
    case StatusCode::FunctionNotImplemented:
        return kInvalidOpcode;
    case StatusCode::BadCommand:
    case StatusCode::UnknownMgmtSubpage:
    case StatusCode::BadIOLength:
        return kInvalidFieldInCdb;
    case StatusCode::ReadOnlyMode:
        return kWriteProtected;
    case StatusCode::OutOfSpace:
        return kSpaceExhausted;
    case StatusCode::ReadError:
    case StatusCode::WriteError:
    case StatusCode::MediaError:
    case StatusCode::DiskError:
    case StatusCode::DM_MediaError:
        return write ? kWriteError : kUnrecoveredReadError;
    default:
        return kInternalTargetFailure;
    }
}

}  // namespace scsi
