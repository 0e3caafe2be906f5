#pragma once
// IscsiPdu: one iSCSI protocol data unit as it crosses the wire: the 48-byte
// basic header segment (BHS), the additional header segments and the data
// segment. Fields are big-endian on the wire; the accessors convert, so the
// rest of the target never touches raw header bytes. A PDU owns its data
// segment only when it was read into `data`; the large data of Data-Out and
// Data-In never pass through here (they go straight between the socket and
// the backend's buffers).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "util/StatusCode.h"

namespace iscsi {

// Initiator opcodes.
constexpr uint8_t kNopOut = 0x00, kScsiCommand = 0x01, kTaskMgmtRequest = 0x02, kLoginRequest = 0x03,
                  kTextRequest = 0x04, kDataOut = 0x05, kLogoutRequest = 0x06, kSnackRequest = 0x10;
// Target opcodes.
constexpr uint8_t kNopIn = 0x20, kScsiResponse = 0x21, kTaskMgmtResponse = 0x22, kLoginResponse = 0x23,
                  kTextResponse = 0x24, kDataIn = 0x25, kLogoutResponse = 0x26, kReadyToTransfer = 0x31,
                  kAsyncMessage = 0x32, kReject = 0x3f;

constexpr uint32_t kReservedTag = 0xffffffffu;
constexpr size_t kBhsLength = 48;
// The largest data segment the target accepts in a PDU that it buffers itself
// (login, text, NOP-Out, sense): anything longer is a malformed PDU.
constexpr uint32_t kMaxBufferedSegment = 65536;

// Reject reasons.
constexpr uint8_t kRejectProtocolError = 0x04, kRejectCommandNotSupported = 0x05, kRejectInvalidPduField = 0x09;

inline uint16_t getBe16(const uint8_t* p) { return uint16_t((p[0] << 8) | p[1]); }
inline uint32_t getBe24(const uint8_t* p) { return (uint32_t(p[0]) << 16) | (uint32_t(p[1]) << 8) | p[2]; }
inline uint32_t getBe32(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}
inline uint64_t getBe64(const uint8_t* p) { return (uint64_t(getBe32(p)) << 32) | getBe32(p + 4); }
inline void putBe16(uint8_t* p, uint16_t v) { p[0] = uint8_t(v >> 8); p[1] = uint8_t(v); }
inline void putBe24(uint8_t* p, uint32_t v) { p[0] = uint8_t(v >> 16); p[1] = uint8_t(v >> 8); p[2] = uint8_t(v); }
inline void putBe32(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v >> 24); p[1] = uint8_t(v >> 16); p[2] = uint8_t(v >> 8); p[3] = uint8_t(v);
}
inline void putBe64(uint8_t* p, uint64_t v) { putBe32(p, uint32_t(v >> 32)); putBe32(p + 4, uint32_t(v)); }

// Serial number arithmetic on 32-bit sequence numbers (RFC 1982).
inline bool snLess(uint32_t a, uint32_t b) { return a != b && int32_t(a - b) < 0; }
inline bool snLessEq(uint32_t a, uint32_t b) { return a == b || snLess(a, b); }

inline uint32_t padTo4(uint32_t n) { return (n + 3u) & ~3u; }

// The basic header segment with named accessors. Offsets are those of the
// wire format; fields whose meaning depends on the opcode have one accessor
// per meaning.
struct Bhs {
    uint8_t b[kBhsLength] = {};

    uint8_t opcode() const { return b[0] & 0x3f; }
    bool immediate() const { return (b[0] & 0x40) != 0; }
    uint8_t flags() const { return b[1]; }
    bool final() const { return (b[1] & 0x80) != 0; }
    uint8_t totalAhsWords() const { return b[4]; }
    uint32_t dataSegmentLength() const { return getBe24(b + 5); }
    const uint8_t* lunBytes() const { return b + 8; }
    uint32_t itt() const { return getBe32(b + 16); }
    uint32_t word20() const { return getBe32(b + 20); }  // TTT, expected data transfer length, CID
    uint32_t cmdSn() const { return getBe32(b + 24); }
    uint32_t expStatSn() const { return getBe32(b + 28); }
    uint32_t word36() const { return getBe32(b + 36); }  // DataSN
    uint32_t word40() const { return getBe32(b + 40); }  // buffer offset
    const uint8_t* cdb() const { return b + 32; }

    void setOpcode(uint8_t op) { b[0] = op; }
    void setFlags(uint8_t f) { b[1] = f; }
    void setDataSegmentLength(uint32_t n) { putBe24(b + 5, n); }
    void setLunBytes(const uint8_t* lun) { std::memcpy(b + 8, lun, 8); }
    void setItt(uint32_t v) { putBe32(b + 16, v); }
    void setWord(size_t offset, uint32_t v) { putBe32(b + offset, v); }
};
static_assert(sizeof(Bhs) == kBhsLength);

// The LUN number of an 8-byte LUN field in single-level peripheral or flat
// addressing; other forms give kInvalidLun.
constexpr uint32_t kInvalidLun = 0xffffffffu;
uint32_t decodeLun(const uint8_t* lun);
void encodeLun(uint32_t lun, uint8_t* out);

// A PDU read by the connection: the header and, for the PDUs the target
// buffers itself, the data segment (without padding).
struct Pdu {
    Bhs bhs;
    std::vector<uint8_t> ahs;
    std::vector<uint8_t> data;
};

// Checks what the header alone can tell: a known initiator opcode, a length
// the target is willing to buffer for that opcode. InvalidPdu-class failures
// come back as BadCommand; the connection rejects the PDU and ends.
StatusCode validateInitiatorBhs(const Bhs& bhs, uint32_t maxRecvDataSegment);

// Text-format key=value pairs as carried by login and text PDUs: each pair is
// terminated by a NUL byte. Order is kept, duplicate keys are kept as sent.
using KeyValues = std::vector<std::pair<std::string, std::string>>;
StatusCode parseKeyValues(const uint8_t* data, size_t length, KeyValues& out);
std::vector<uint8_t> buildKeyValues(const KeyValues& pairs);

}  // namespace iscsi
