#include "platform/target/DriverRegions.h"

#include <sys/mman.h>

#include "platform/board/Board.h"
#include "platform/target/TdRing.h"

StatusCode DriverRegions::open(size_t journalBytes, size_t readBufferBytes, uint32_t sgls) {
    Board& board = Board::GetInstance();
    auto* rings = static_cast<uint8_t*>(board.openRegion("/usbCmdResp", td::kRingRegionSize));
    usbSgList = static_cast<uint8_t*>(
        board.openRegion("/usbSgList", sizeof(td::UsbSgListHeader) + kUsbSgPairs * sizeof(td::UsbSgPair)));
    size_t sgldSize = size_t(sgls) * sizeof(td::InterCoreSgl);
    sgld = static_cast<uint8_t*>(board.openRegion("/SGLD", sgldSize, &sgldSize));
    journal = static_cast<uint8_t*>(board.openRegion("/SHJ1", journalBytes, &journalSize));
    readBuffer = static_cast<uint8_t*>(board.openRegion("/readbuffer", readBufferBytes, &readBufferSize));
    if (!rings || !usbSgList || !sgld || !journal || !readBuffer || journalSize < journalBytes || readBufferSize < readBufferBytes)
        return StatusCode::InitFailed;
    sglCount = uint32_t(sgldSize / sizeof(td::InterCoreSgl));
    multiCommands = reinterpret_cast<td::CommandRing*>(rings + td::kMultiCommandRing);
    multiResponses = reinterpret_cast<td::ResponseRing*>(rings + td::kMultiResponseRing);
    td::ringReset(multiCommands->header);
    td::ringReset(multiResponses->header);
    return StatusCode::Success;
}

const uint8_t* DriverRegions::element(const td::SglElement& e) const {
    uint64_t end = uint64_t(e.offset.get()) + e.length.get();
    switch (e.pool.get()) {
    case td::kPoolReadBuffer: return end <= readBufferSize ? readBuffer + e.offset.get() : nullptr;
    case td::kPoolJournal: return end <= journalSize ? journal + e.offset.get() : nullptr;
    default: return nullptr;
    }
}

namespace {
uint8_t* privatePool(size_t bytes) {
    void* p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (p == MAP_FAILED) return nullptr;
    ::madvise(p, bytes, MADV_HUGEPAGE);
    return static_cast<uint8_t*>(p);
}
}  // namespace

StatusCode DriverRegions::openWithPrivatePools(size_t journalBytes, size_t readBufferBytes, uint32_t sgls) {
    StatusCode s = open(4096, 4096, sgls);
    if (!s.ok()) return s;
    journal = privatePool(journalBytes);
    readBuffer = privatePool(readBufferBytes);
    journalSize = journalBytes;
    readBufferSize = readBufferBytes;
    privatePools = true;
    return journal && readBuffer ? StatusCode(StatusCode::Success) : StatusCode(StatusCode::InitFailed);
}

void DriverRegions::closePrivatePools() {
    if (!privatePools) return;
    if (journal) ::munmap(journal, journalSize);
    if (readBuffer) ::munmap(readBuffer, readBufferSize);
    journal = readBuffer = nullptr;
    privatePools = false;
}
