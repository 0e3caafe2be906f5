#pragma once
// TransportBuffers: where the data of a response lie as the target driver
// sees them. The driver sends read data straight from two shared regions,
// the journal memory "/SHJ1" and "/readbuffer" (the host LBA cache's
// blocks), so every piece of a response window is named by its pool and its
// offset in that pool.
//
// A window whose memory lies in neither region (the memory-backed map that
// stands in for the LUN map builds its read windows in process memory) is
// first copied into blocks of the host LBA cache's pool, and the copy
// replaces the request's window. With the real map every read window is in
// "/readbuffer" already and nothing is copied: the count of copies says so.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

class ClientRequest;

struct TransportPools {
    uint8_t* journal = nullptr;
    size_t journalSize = 0;
    uint8_t* readBuffer = nullptr;
    size_t readBufferSize = 0;

    // The regions as this process maps them (opened through the board).
    static TransportPools open();
};

struct BufferPiece {
    uint32_t pool;  // td::kPoolJournal or td::kPoolReadBuffer
    uint32_t offset;
    uint32_t length;
};

// Describes the request's window, at most `maxPieces` pieces and `length`
// bytes. False when it cannot be described (more pieces than allowed, or no
// pool memory for the copy).
bool describeWindow(ClientRequest& request, const TransportPools& pools, uint32_t length, uint32_t maxPieces,
                    std::vector<BufferPiece>& pieces);

// Windows copied into the cache's pool because their memory lay outside both regions.
extern std::atomic<uint64_t> gBouncedWindows;
