#include "platform/target/RamBackend.h"

#include <sys/mman.h>

#include "platform/target/ScsiResponder.h"
#include "platform/target/TargetLunTable.h"
#include "util/Assert.h"

RamBackend::RamBackend(uint32_t luns, uint64_t bytesPerLun) : mBytes(bytesPerLun / scsi::kBlockSize * scsi::kBlockSize) {
    for (uint32_t i = 0; i < luns; ++i) {
        void* p = ::mmap(nullptr, mBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        ESA_ASSERT(p != MAP_FAILED);
        // Huge pages: the socket copies run through the whole LUN, and with
        // small pages they spend their time on TLB misses.
        ::madvise(p, mBytes, MADV_HUGEPAGE);
        mLuns.push_back(static_cast<uint8_t*>(p));
    }
}

RamBackend::~RamBackend() {
    for (uint8_t* p : mLuns) ::munmap(p, mBytes);
}

void RamBackend::publish() { publishLuns(uint32_t(mLuns.size()), mBytes); }

void RamBackend::publishLuns(uint32_t luns, uint64_t bytesPerLun) {
    TargetLunTable& t = TargetLunTable::GetInstance();
    t.setLunCount(luns);
    for (uint32_t i = 0; i < luns; ++i) t.setLastLba(i, bytesPerLun / scsi::kBlockSize - 1);
    t.setMediaAccess(true);
    t.setTransportEnabled(true);
}

// The target has checked the range against the LUN table, which publish()
// filled from this backend's own sizes.
uint8_t* RamBackend::at(const TargetCommand& cmd) const {
    ESA_ASSERT_OP(cmd.lun, <, mLuns.size());
    ESA_ASSERT_OP((cmd.lba + cmd.blocks) * scsi::kBlockSize, <=, mBytes);
    return mLuns[cmd.lun] + cmd.lba * scsi::kBlockSize;
}

// backendHandle marks a command this backend has seen until its release.
void RamBackend::hold(TargetCommand& cmd) {
    if (cmd.backendHandle == 0) {
        cmd.backendHandle = 1;
        ++mHeld;
    }
}

uint8_t* RamBackend::writeBuffer(TargetCommand& cmd) {
    hold(cmd);
    return at(cmd);
}

void RamBackend::submit(TargetCommand& cmd) {
    ++mSubmitted;
    hold(cmd);
    switch (cmd.kind) {
    case TargetCommand::Kind::Read:
        cmd.dataIn.push_back({at(cmd), cmd.blocks * scsi::kBlockSize});
        cmd.status = StatusCode::Success;
        break;
    case TargetCommand::Kind::Write:     // the data are in place already
    case TargetCommand::Kind::SyncCache:  // memory has no cache to flush
        cmd.status = StatusCode::Success;
        break;
    case TargetCommand::Kind::Management:
        // No management pages here: the vendor command is unknown, the mode pages are not there.
        cmd.status = cmd.cdb[0] == scsi::kVendorManagement ? StatusCode::UnknownScsiRequest : StatusCode::BadCommand;
        break;
    }
    cmd.completion->commandDone(cmd);
}

void RamBackend::release(TargetCommand& cmd) {
    if (cmd.backendHandle != 1) {
        ++mStrayReleases;
        return;
    }
    cmd.backendHandle = 0;
    --mHeld;
}

void RamBackend::linkEvent(bool) { ++mLinkEvents; }
