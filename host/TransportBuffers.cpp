#include "host/TransportBuffers.h"

#include "cache/HostLbaTracker.h"
#include "host/ClientRequest.h"
#include "platform/board/Board.h"
#include "platform/target/TargetDriverRecords.h"

std::atomic<uint64_t> gBouncedWindows{0};

TransportPools TransportPools::open() {
    TransportPools p;
    // The host LBA cache makes "/readbuffer" at its full size.
    (void)HostLbaTracker::GetInstance();
    Board& board = Board::GetInstance();
    // Both regions exist by now (the write-buffer partition and the host LBA
    // cache open them at their full sizes); opening again returns them as they are.
    p.journal = static_cast<uint8_t*>(board.openRegion("/SHJ1", 4096, &p.journalSize));
    p.readBuffer = static_cast<uint8_t*>(board.openRegion("/readbuffer", 4096, &p.readBufferSize));
    return p;
}

namespace {
bool inPool(const uint8_t* p, uint32_t n, const uint8_t* base, size_t size, uint32_t& offset) {
    if (base == nullptr || p < base || p + n > base + size) return false;
    offset = uint32_t(p - base);
    return true;
}

bool collect(const DataWindow& window, const TransportPools& pools, uint32_t length, uint32_t maxPieces,
             std::vector<BufferPiece>& pieces) {
    pieces.clear();
    unsigned char* p = nullptr;
    uint32_t n = 0;
    uint32_t left = length;
    for (auto it = window.begin(p, n); it != window.end() && left > 0; it.GetNext(p, n)) {
        uint32_t take = n < left ? n : left;
        BufferPiece piece{};
        if (inPool(p, take, pools.readBuffer, pools.readBufferSize, piece.offset)) {
            piece.pool = td::kPoolReadBuffer;
        } else if (inPool(p, take, pools.journal, pools.journalSize, piece.offset)) {
            piece.pool = td::kPoolJournal;
        } else {
            return false;
        }
        piece.length = take;
        if (!pieces.empty() && pieces.back().pool == piece.pool &&
            pieces.back().offset + pieces.back().length == piece.offset) {
            pieces.back().length += take;
        } else {
            if (pieces.size() >= maxPieces) return false;
            pieces.push_back(piece);
        }
        left -= take;
    }
    return true;
}
}  // namespace

bool describeWindow(ClientRequest& request, const TransportPools& pools, uint32_t length, uint32_t maxPieces,
                    std::vector<BufferPiece>& pieces) {
    if (length > request.window.GetLength()) length = request.window.GetLength();
    if (collect(request.window, pools, length, maxPieces, pieces)) return true;
    // Outside both regions: copy into blocks of the host LBA cache's pool.
    MemoryPool& pool = HostLbaTracker::GetInstance()->pool();
    uint32_t blockSize = HostLbaTracker::kBlockSize;
    DataStore* store = pool.GetBlocks((length + blockSize - 1) / blockSize);
    if (store == nullptr) return false;
    DataWindow copy;
    copy.InitializeAndTransferStore(*store, 0, length);
    copy.Write(DataWindow(request.window, 0, length));
    request.window = copy;
    ++gBouncedWindows;
    return collect(request.window, pools, length, maxPieces, pieces);
}
