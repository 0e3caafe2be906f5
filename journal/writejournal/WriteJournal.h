#pragma once
// WriteJournal: the front of J1. The request thread hands it every host write
// (ProcessHostWrite: into the host LBA cache and the tag list); the write
// threads take coalesced batches from it (PostWriteRequest) and give them back
// when the map has written them (PostWriteComplete). At pack load it sets up
// the journal over "/SHJ1" and the NVRAM buffers and replays what a power cut
// left behind, before any host I/O.
#include <atomic>
#include <cstdint>
#include <ostream>

#include "journal/writejournal/PostWriteElem.h"
#include "util/StatusCode.h"

class ClientRequest;
class WJMemoryPool;

class WriteJournal {
public:
    static constexpr unsigned long kReplayCacheSize = 0x10000;

    static WriteJournal* GetInstance();

    StatusCode Initialize();
    StatusCode LoadDiskPack();
    // The replay step: after the map is loaded, before any host I/O.
    StatusCode LoadDiskPack2();
    StatusCode UnloadDiskPack();

    StatusCode ProcessHostWrite(ClientRequest& request, unsigned long sequence);
    // Blocks until a batch is ready; false when the journal is being stopped.
    bool PostWriteRequest(PostWriteElem& elem, unsigned long minSectors);
    void PostWriteComplete(PostWriteElem& elem);

    // True once the journal is live (loaded and replayed): a write that has
    // its replay tag may then be answered as soon as the journal holds it.
    bool earlyAcknowledgement() const;
    uint32_t queued() const;

    WJMemoryPool* memoryPool() const { return mPool; }
    unsigned char* journalStart() const { return mJ1Start; }
    size_t journalSize() const { return mJ1Size; }
    void Dump(std::ostream& out) const;

private:
    WriteJournal() = default;
    // A request that will not reach the disks through the list.
    void dropWrite(ClientRequest& request, StatusCode why);

    bool mSynchronous = false;        // reserved, always false
    WJMemoryPool* mPool = nullptr;
    unsigned char* mJ1Start = nullptr;
    size_t mJ1Size = 0;
    void* mTagCache = nullptr;        // NVRAM buffer 0x10012001
};
