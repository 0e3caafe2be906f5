#pragma once
// The records the target driver and the system exchange through the named
// queues and shared regions ("/tdToRtpQ", "/tdFromRtpQ", "/usbCmdResp",
// "/SGLD", "/SHJ1", "/readbuffer"). They are wire formats between two sides:
// little-endian, packed, byte-exact. Addresses that were 32-bit pointers on
// the board are 32-bit offsets here (into the region the field names), so
// the layout stays the same on a 64-bit host.
#include <cstddef>
#include <cstdint>

// A little-endian field of N bytes, read and written through explicit
// conversions so that no host-order value is ever stored in a record.
template <typename T>
struct LeField {
    uint8_t b[sizeof(T)];
    T get() const {
        T v = 0;
        for (size_t i = sizeof(T); i-- > 0;) v = T((v << 8) | b[i]);
        return v;
    }
    void set(T v) {
        for (size_t i = 0; i < sizeof(T); ++i) b[i] = uint8_t(uint64_t(v) >> (8 * i));
    }
    operator T() const { return get(); }
    LeField& operator=(T v) {
        set(v);
        return *this;
    }
};
using Le32 = LeField<uint32_t>;
using Le64 = LeField<uint64_t>;
static_assert(sizeof(Le32) == 4 && sizeof(Le64) == 8);

namespace td {

// TD_COMMAND_BLOCK flags.
constexpr uint32_t kCmdWrite = 0x01;          // TD_CMD_WRITE
constexpr uint32_t kCmdRead = 0x02;           // TD_CMD_READ
constexpr uint32_t kCmdManagement = 0x04;
constexpr uint32_t kCmdLinkOrRelease = 0x08;  // link event, or with 0x100 the release of the last read
constexpr uint32_t kCmdSyncCache = 0x10;      // on the command queue
constexpr uint32_t kCmdResRelease = 0x20;     // TD_CMD_RES_RELEASE on the multi-issue ring
constexpr uint32_t kCmdConnected = 0x40;
constexpr uint32_t kCmdFlushDisks = 0x80;
constexpr uint32_t kCmdReleaseLastRead = 0x100;
constexpr uint32_t kCmdMgmtNoPayload = 0x80000000u;

// tdCmdResp types.
constexpr uint32_t kRespPlain = 0;
constexpr uint32_t kRespPayloadFollows = 1;
constexpr uint32_t kRespSgl = 2;
constexpr uint32_t kRespWriteAck = 0x41;

// Transport ids, in the LUN byte of a link event.
constexpr uint8_t kTransportUsb = 0, kTransportFireWire = 1, kTransportSata = 2, kTransportPcie = 3,
                  kTransportIscsi = 4;

// Pool ids of InterCoreSGL elements.
constexpr uint32_t kPoolReadBuffer = 0x10;  // "/readbuffer"
constexpr uint32_t kPoolJournal = 0x11;     // "/SHJ1"

#pragma pack(push, 1)
struct CommandBlock {        // TD_COMMAND_BLOCK
    Le32 flags;              // 0
    Le32 payloadLength;      // 4: write data or management data, bytes
    Le64 lba;                // 8
    Le32 length;             // 16: sectors, or the management command's length in bytes
    Le32 writeData;          // 20: offset of the write data in "/SHJ1"
    Le32 tag;                // 24: tag; request handle for TD_CMD_RES_RELEASE; multi-issue: request id
    uint8_t context[12];     // 28: kept and returned unchanged (multi-issue)
    uint8_t lun;             // 40: LUN, or transport id in a link event
    uint8_t reserved[3];     // 41
};
static_assert(sizeof(CommandBlock) == 44);
static_assert(offsetof(CommandBlock, lba) == 8 && offsetof(CommandBlock, tag) == 24 &&
              offsetof(CommandBlock, context) == 28 && offsetof(CommandBlock, lun) == 40);

struct CmdResp {             // tdCmdResp
    Le32 type;               // 0
    Le32 rc;                 // 4: 0, or -1 when status is not Success
    Le32 residual;           // 8
    Le32 status;             // 12
    Le32 tag;                // 16: tag or request id
    Le32 requestHandle;      // 20: multi-issue: returned later in TD_CMD_RES_RELEASE
    uint8_t context[12];     // 24
    Le32 sgl;                // 36: offset of the InterCoreSGL in "/SGLD"
};
static_assert(sizeof(CmdResp) == 40);
static_assert(offsetof(CmdResp, requestHandle) == 20 && offsetof(CmdResp, sgl) == 36);

constexpr uint32_t kRingSlots = 90;
constexpr size_t kRingStride = 0x1000;  // the four rings of "/usbCmdResp" lie 4096 bytes apart
constexpr size_t kSingleCommandRing = 0x0000, kSingleResponseRing = 0x1000, kMultiCommandRing = 0x2000,
                 kMultiResponseRing = 0x3000, kRingRegionSize = 0x4000;

struct RingHeader {
    Le32 head;        // 0: next slot to fill
    Le32 tail;        // 4: next slot to read
    Le32 semaphore;   // 8: response ring: a binary semaphore, created by the system
    Le32 processing;  // 12: command ring: a slot is being processed
};
static_assert(sizeof(RingHeader) == 16);

struct CommandRing {
    RingHeader header;
    CommandBlock slots[kRingSlots];  // from offset 16
};
static_assert(offsetof(CommandRing, slots) == 16);
static_assert(sizeof(CommandRing) <= kRingStride);

struct ResponseRing {
    RingHeader header;
    Le32 lengths[kRingSlots];           // 16: the record length of each slot
    CmdResp slots[kRingSlots];          // 0x178
};
static_assert(offsetof(ResponseRing, lengths) == 16);
static_assert(offsetof(ResponseRing, slots) == 0x178);
static_assert(sizeof(ResponseRing) <= kRingStride);

constexpr uint32_t kSglMaxElements = 520;
struct SglElement {
    Le32 offset;  // in the pool's region
    Le32 length;
    Le32 pool;    // kPoolReadBuffer or kPoolJournal
};
static_assert(sizeof(SglElement) == 12);

struct InterCoreSgl {
    Le32 count;      // 0: number of elements
    Le32 one;        // 4: always 1
    Le32 total;      // 8: total length in bytes
    SglElement elements[kSglMaxElements];  // 12
};
static_assert(sizeof(InterCoreSgl) == 0x186c);

// "/usbSgList": the scatter list of a single-issue read or management response.
struct UsbSgListHeader {
    Le32 count;
};
struct UsbSgPair {
    Le32 length;
    Le32 address;  // offset in "/readbuffer"
};
static_assert(sizeof(UsbSgPair) == 8);
#pragma pack(pop)

}  // namespace td
