#include "platform/target/SplitCommand.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "platform/target/IscsiPdu.h"
#include "platform/target/ScsiResponder.h"

namespace split {

namespace {

// Waits for the one completion of a piece.
class PieceDone : public TargetCompletion {
public:
    void commandDone(TargetCommand&) override {
        std::lock_guard<std::mutex> g(mLock);
        mDone = true;
        mCv.notify_all();
    }
    void wait() {
        std::unique_lock<std::mutex> g(mLock);
        mCv.wait(g, [this] { return mDone; });
    }

private:
    std::mutex mLock;
    std::condition_variable mCv;
    bool mDone = false;
};

// The CDB the piece would have had as a command of its own: READ(16) or WRITE(16).
void pieceCdb(TargetCommand& piece) {
    std::memset(piece.cdb, 0, sizeof piece.cdb);
    piece.cdb[0] = piece.kind == TargetCommand::Kind::Write ? scsi::kWrite16 : scsi::kRead16;
    if (piece.fua) piece.cdb[1] = 0x08;
    iscsi::putBe64(piece.cdb + 2, piece.lba);
    iscsi::putBe32(piece.cdb + 10, piece.blocks);
}

}  // namespace

bool needed(const TargetCommand& cmd) {
    return (cmd.kind == TargetCommand::Kind::Read || cmd.kind == TargetCommand::Kind::Write) &&
           cmd.blocks > scsi::kMaxRequestBlocks;
}

StatusCode runInPieces(TargetBackend& backend, const TargetCommand& whole, uint8_t* data) {
    const bool write = whole.kind == TargetCommand::Kind::Write;
    for (uint32_t done = 0; done < whole.blocks;) {
        const uint32_t n = std::min(scsi::kMaxRequestBlocks, whole.blocks - done);
        uint8_t* at = data + size_t(done) * scsi::kBlockSize;
        const size_t bytes = size_t(n) * scsi::kBlockSize;
        TargetCommand piece;
        piece.kind = whole.kind;
        piece.lun = whole.lun;
        piece.lba = whole.lba + done;
        piece.blocks = n;
        piece.fua = whole.fua;
        pieceCdb(piece);
        PieceDone waiter;
        piece.completion = &waiter;
        if (write) {
            uint8_t* buf = backend.writeBuffer(piece);
            if (buf) std::memcpy(buf, at, bytes);
            piece.dataOut = buf ? buf : at;
            piece.dataOutLength = uint32_t(bytes);
        }
        backend.submit(piece);
        waiter.wait();
        StatusCode st = piece.status;
        if (!write && st.ok()) {
            size_t copied = 0;
            for (const TargetSegment& s : piece.dataIn) {
                size_t take = std::min<size_t>(s.length, bytes - copied);
                std::memcpy(at + copied, s.data, take);
                copied += take;
            }
            if (copied != bytes) st = StatusCode::InternalError;  // the backend gave less than the piece
        }
        backend.release(piece);
        if (!st.ok()) return st;
        done += n;
    }
    return StatusCode::Success;
}

}  // namespace split
