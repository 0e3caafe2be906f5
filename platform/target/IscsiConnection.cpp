#include "platform/target/IscsiConnection.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "platform/target/IscsiConnectionTask.h"
#include "platform/target/IscsiTarget.h"

using namespace iscsi;
using namespace iscsi_connection;

namespace iscsi_connection {
Trace tTarget("Target", "Iscsi", "Conn", false);
const uint8_t kZeroPad[4] = {0, 0, 0, 0};
}  // namespace iscsi_connection

namespace {
constexpr size_t kRxBufferSize = 256 * 1024;
constexpr size_t kDirectReadThreshold = 16 * 1024;  // larger reads bypass the receive buffer
}  // namespace

IscsiConnection::IscsiConnection(IscsiTarget& target, int fd, uint64_t id)
    : mTarget(target), mBackend(target.backend()), mResponder(target.responder()), mFd(fd), mId(id),
      mRx(kRxBufferSize), mCommandWindow(target.config().commandWindow) {
    TargetLunTable& table = TargetLunTable::GetInstance();
    mInventorySeen = table.inventoryGeneration();
    for (uint32_t lun = 0; lun < TargetLunTable::kMaxLuns; ++lun) mCapacitySeen[lun] = table.capacityGeneration(lun);
}

IscsiConnection::~IscsiConnection() {
    if (mFd >= 0) ::close(mFd);
}

void IscsiConnection::shutdownSocket() { ::shutdown(mFd, SHUT_RDWR); }

// ---------------------------------------------------------------- reading

bool IscsiConnection::readExact(void* dstv, size_t n) {
    auto* dst = static_cast<uint8_t*>(dstv);
    size_t have = mRxEnd - mRxStart;
    size_t take = std::min(have, n);
    if (take) {
        std::memcpy(dst, &mRx[mRxStart], take);
        mRxStart += take;
        dst += take;
        n -= take;
    }
    while (n > 0) {
        if (n >= kDirectReadThreshold) {
            ssize_t r = ::recv(mFd, dst, n, MSG_WAITALL);
            if (r <= 0) {
                if (r < 0 && errno == EINTR) continue;
                return false;
            }
            dst += r;
            n -= size_t(r);
            continue;
        }
        ssize_t r = ::recv(mFd, mRx.data(), mRx.size(), 0);
        if (r <= 0) {
            if (r < 0 && errno == EINTR) continue;
            return false;
        }
        mRxStart = 0;
        mRxEnd = size_t(r);
        take = std::min(mRxEnd, n);
        std::memcpy(dst, mRx.data(), take);
        mRxStart = take;
        dst += take;
        n -= take;
    }
    return true;
}

bool IscsiConnection::skipBytes(size_t n) {
    if (mDiscard.empty()) mDiscard.resize(64 * 1024);
    while (n > 0) {
        size_t chunk = std::min(n, mDiscard.size());
        if (!readExact(mDiscard.data(), chunk)) return false;
        n -= chunk;
    }
    return true;
}

bool IscsiConnection::readHeader(Pdu& pdu) {
    if (!readExact(pdu.bhs.b, kBhsLength)) return false;
    pdu.ahs.resize(size_t(pdu.bhs.totalAhsWords()) * 4);
    pdu.data.clear();
    return pdu.ahs.empty() || readExact(pdu.ahs.data(), pdu.ahs.size());
}

bool IscsiConnection::readSegment(Pdu& pdu) {
    uint32_t len = pdu.bhs.dataSegmentLength();
    pdu.data.resize(len);
    if (len && !readExact(pdu.data.data(), len)) return false;
    return skipBytes(padTo4(len) - len);
}

// Receives `length` bytes of a write's data that belong at `offset`.
bool IscsiConnection::receiveInto(Task& task, uint32_t offset, uint32_t length) {
    uint32_t landed = 0;
    if (offset < task.landing) {
        landed = std::min(length, task.landing - offset);
        if (!readExact(task.buffer + offset, landed)) return false;
    }
    uint32_t rest = length - landed;
    return skipBytes(rest + (padTo4(length) - length));
}

// ---------------------------------------------------------------- run

void IscsiConnection::run() {
    bool ok = login();
    if (ok) {
        // Logged in: an idle session is a normal session, so no more receive timeout.
        struct timeval none = {0, 0};
        ::setsockopt(mFd, SOL_SOCKET, SO_RCVTIMEO, &none, sizeof none);
        mPhase = Phase::FullFeature;
        fullFeature();
    }
    mPhase = Phase::Ending;
    shutdownSocket();
    abortTasks(true, 0);
    drainSubmitted();
    if (mRegistered) mTarget.unregisterSession(this);
    ESA_TRACE(tTarget, "connection " << mId << " ended");
}

// Commands carry CmdSN; one outside [ExpCmdSN, MaxCmdSN] is ignored, as the
// protocol asks. With one TCP connection per session the initiator's order is
// the arrival order, so a CmdSN ahead of ExpCmdSN can only mean the
// initiator skipped numbers: the target moves ExpCmdSN past it rather than
// wait for commands that will never come.
bool IscsiConnection::acceptCmdSn(const Bhs& bhs) {
    if (bhs.immediate()) return true;
    uint32_t sn = bhs.cmdSn();
    uint32_t exp = mExpCmdSn.load();
    uint32_t max = exp + mCommandWindow - 1;
    if (!snLessEq(exp, sn) || !snLessEq(sn, max)) return false;
    mExpCmdSn.store(sn + 1);
    return true;
}

void IscsiConnection::fillSequence(Bhs& bhs, bool advanceStatSn) {
    putBe32(bhs.b + 24, advanceStatSn ? mStatSn++ : mStatSn);
    // The window is fixed: MaxCmdSN never moves back, and the commands in it
    // are what the initiator may have outstanding.
    uint32_t exp = mExpCmdSn.load();
    putBe32(bhs.b + 28, exp);
    putBe32(bhs.b + 32, exp + mCommandWindow - 1);
}

bool IscsiConnection::sendIov(struct iovec* iov, int count) {
    if (mSendFailed) return false;
    struct msghdr msg = {};
    while (count > 0) {
        msg.msg_iov = iov;
        msg.msg_iovlen = size_t(std::min(count, IOV_MAX));
        ssize_t n = ::sendmsg(mFd, &msg, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            mSendFailed = true;
            return false;
        }
        size_t left = size_t(n);
        while (count > 0 && left >= iov->iov_len) {
            left -= iov->iov_len;
            ++iov;
            --count;
        }
        if (count > 0) {
            iov->iov_base = static_cast<uint8_t*>(iov->iov_base) + left;
            iov->iov_len -= left;
        }
    }
    return true;
}

bool IscsiConnection::sendPdu(Bhs& bhs, const void* data, uint32_t length, bool advanceStatSn) {
    std::lock_guard<std::mutex> g(mSendLock);
    bhs.setDataSegmentLength(length);
    fillSequence(bhs, advanceStatSn);
    struct iovec iov[3] = {{bhs.b, kBhsLength}, {const_cast<void*>(data), length},
                           {const_cast<uint8_t*>(kZeroPad), padTo4(length) - length}};
    return sendIov(iov, 3);
}

// ---------------------------------------------------------------- tasks

IscsiConnection::Task* IscsiConnection::findTask(uint32_t itt) {
    std::lock_guard<std::mutex> g(mTaskLock);
    auto it = mTasks.find(itt);
    return it == mTasks.end() ? nullptr : it->second.get();
}

// A task answered without being submitted.
void IscsiConnection::removeTask(Task* t) {
    std::lock_guard<std::mutex> g(mTaskLock);
    if (t->hasBackendBuffer) mBackend.release(t->cmd);
    mTasks.erase(t->itt);
    --mOutstanding;
}

void IscsiConnection::abortTasks(bool allLuns, uint32_t lun) {
    std::lock_guard<std::mutex> g(mTaskLock);
    for (auto it = mTasks.begin(); it != mTasks.end();) {
        Task* t = it->second.get();
        if (!allLuns && t->lun != lun) { ++it; continue; }
        t->aborted = true;
        if (t->submitted) { ++it; continue; }
        if (t->hasBackendBuffer) mBackend.release(t->cmd);
        it = mTasks.erase(it);
        --mOutstanding;
    }
}

void IscsiConnection::markAborted(bool allLuns, uint32_t lun) {
    std::lock_guard<std::mutex> g(mTaskLock);
    for (auto& [itt, t] : mTasks)
        if (allLuns || t->lun == lun) t->aborted = true;
}

void IscsiConnection::drainSubmitted() {
    std::unique_lock<std::mutex> g(mTaskLock);
    mTaskDone.wait(g, [&] { return mSubmitted == 0; });
}
