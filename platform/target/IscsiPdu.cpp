#include "platform/target/IscsiPdu.h"

namespace iscsi {

uint32_t decodeLun(const uint8_t* lun) {
    uint8_t method = lun[0] >> 6;
    if (method != 0 && method != 1) return kInvalidLun;
    for (int i = 2; i < 8; ++i)
        if (lun[i] != 0) return kInvalidLun;
    if (method == 0 && (lun[0] & 0x3f) != 0) return kInvalidLun;  // bus number other than 0
    return (uint32_t(lun[0] & 0x3f) << 8) | lun[1];
}

void encodeLun(uint32_t lun, uint8_t* out) {
    std::memset(out, 0, 8);
    if (lun < 256) {
        out[1] = uint8_t(lun);
    } else {
        out[0] = uint8_t(0x40 | ((lun >> 8) & 0x3f));
        out[1] = uint8_t(lun);
    }
}

StatusCode validateInitiatorBhs(const Bhs& bhs, uint32_t maxRecvDataSegment) {
    uint32_t len = bhs.dataSegmentLength();
    switch (bhs.opcode()) {
    case kNopOut:
    case kLoginRequest:
    case kTextRequest:
        if (len > kMaxBufferedSegment) return StatusCode::BadCommand;
        return StatusCode::Success;
    case kScsiCommand:
    case kDataOut:
        if (len > maxRecvDataSegment) return StatusCode::BadCommand;
        return StatusCode::Success;
    case kTaskMgmtRequest:
    case kLogoutRequest:
    case kSnackRequest:
        if (len != 0) return StatusCode::BadCommand;
        return StatusCode::Success;
    default:
        return StatusCode::UnknownScsiRequest;
    }
}

StatusCode parseKeyValues(const uint8_t* data, size_t length, KeyValues& out) {
    size_t i = 0;
    while (i < length) {
        size_t end = i;
        while (end < length && data[end] != 0) ++end;
        if (end == i) {  // padding or an empty pair
            ++i;
            continue;
        }
        std::string pair(reinterpret_cast<const char*>(data + i), end - i);
        size_t eq = pair.find('=');
        if (eq == std::string::npos || eq == 0) return StatusCode::BadCommand;
        out.emplace_back(pair.substr(0, eq), pair.substr(eq + 1));
        i = end + 1;
    }
    return StatusCode::Success;
}

std::vector<uint8_t> buildKeyValues(const KeyValues& pairs) {
    std::vector<uint8_t> out;
    for (const auto& [k, v] : pairs) {
        out.insert(out.end(), k.begin(), k.end());
        out.push_back('=');
        out.insert(out.end(), v.begin(), v.end());
        out.push_back(0);
    }
    return out;
}

}  // namespace iscsi
