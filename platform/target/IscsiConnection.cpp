#include "platform/target/IscsiConnection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "platform/target/IscsiTarget.h"
#include "platform/target/TargetLunTable.h"
#include "util/Trace.h"

using namespace iscsi;

namespace {
Trace tTarget("Target", "Iscsi", "Conn", false);
constexpr size_t kRxBufferSize = 256 * 1024;
constexpr size_t kDirectReadThreshold = 16 * 1024;  // larger reads bypass the receive buffer
constexpr uint32_t kMaxManagementBytes = 0x80000 + 512;
const uint8_t kZeroPad[4] = {0, 0, 0, 0};
}  // namespace

// One SCSI command between its arrival and its response.
struct IscsiConnection::Task {
    uint32_t itt = 0;
    uint8_t lunBytes[8] = {};
    uint32_t lun = 0;
    bool readFlag = false, writeFlag = false;
    uint32_t edtl = 0;
    scsi::Decision decision;
    TargetCommand cmd;

    // Write reception: the data land in [0, landing) of `buffer`, the rest is dropped.
    uint8_t* buffer = nullptr;
    uint32_t landing = 0;
    std::vector<uint8_t> ownBuffer;
    bool hasBackendBuffer = false;
    bool partialBlock = false;  // the transfer length ends inside a block
    uint32_t received = 0;
    uint32_t burstEnd = 0;
    uint32_t expectedDataSn = 0;
    uint32_t ttt = kReservedTag;
    uint32_t r2tSn = 0;
    bool unsolicited = false;  // unsolicited Data-Out may still come
    bool dataPhaseError = false;
    bool receiving = false;

    bool submitted = false;
    bool aborted = false;
    bool responded = false;  // the status is on its way: the task is complete for the host
};

IscsiConnection::IscsiConnection(IscsiTarget& target, int fd, uint64_t id)
    : mTarget(target), mBackend(target.backend()), mResponder(target.responder()), mFd(fd), mId(id),
      mRx(kRxBufferSize), mCommandWindow(target.config().commandWindow) {}

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

// ---------------------------------------------------------------- login

bool IscsiConnection::sendLoginResponse(const Pdu& req, uint8_t flags, uint8_t cls, uint8_t detail,
                                        const KeyValues& keys) {
    Bhs rsp;
    rsp.setOpcode(kLoginResponse);
    rsp.setFlags(flags);
    std::memcpy(rsp.b + 8, req.bhs.b + 8, 6);  // ISID
    putBe16(rsp.b + 14, mTsih);
    rsp.setItt(req.bhs.itt());
    rsp.b[36] = cls;
    rsp.b[37] = detail;
    auto data = buildKeyValues(keys);
    std::lock_guard<std::mutex> g(mSendLock);
    rsp.setDataSegmentLength(uint32_t(data.size()));
    fillSequence(rsp, true);
    struct iovec iov[3] = {{rsp.b, kBhsLength}, {data.data(), data.size()},
                           {const_cast<uint8_t*>(kZeroPad), padTo4(uint32_t(data.size())) - data.size()}};
    return sendIov(iov, 3);
}

bool IscsiConnection::login() {
    int stage = -1;
    bool announced = false;
    bool first = true;
    KeyValues pending;
    for (;;) {
        Pdu req;
        if (!readHeader(req)) return false;
        if (req.bhs.opcode() != kLoginRequest || validateInitiatorBhs(req.bhs, 0) != StatusCode::Success) {
            ESA_TRACE(tTarget, "connection " << mId << ": not a login request, opcode 0x" << std::hex
                                              << int(req.bhs.opcode()));
            return false;
        }
        if (!readSegment(req)) return false;
        uint8_t f = req.bhs.flags();
        bool transit = (f & 0x80) != 0, cont = (f & 0x40) != 0;
        int csg = (f >> 2) & 3, nsg = f & 3;
        if (first) {
            first = false;
            mIsid = (uint64_t(getBe16(req.bhs.b + 8)) << 32) | getBe32(req.bhs.b + 10);
            mExpCmdSn = req.bhs.cmdSn();
            mStatSn = req.bhs.expStatSn();
            if (req.bhs.b[3] > 0) {  // VersionMin above the only version there is
                sendLoginResponse(req, 0, 2, 0x05, {});
                return false;
            }
            if (getBe16(req.bhs.b + 14) != 0) {  // adding a connection to a session: one per session here
                sendLoginResponse(req, 0, 2, 0x0a, {});
                return false;
            }
        }
        if (csg == 2 || (stage >= 0 && csg < stage) || (transit && (nsg == 2 || nsg <= csg)) || (transit && cont)) {
            sendLoginResponse(req, 0, 2, 0x00, {});
            return false;
        }
        stage = csg;
        if (cont) {  // the keys continue in the next PDU
            KeyValues part;
            if (!parseKeyValues(req.data.data(), req.data.size(), part).ok()) return false;
            pending.insert(pending.end(), part.begin(), part.end());
            if (!sendLoginResponse(req, uint8_t(csg << 2), 0, 0, {})) return false;
            continue;
        }
        KeyValues keys = std::move(pending);
        pending.clear();
        if (!parseKeyValues(req.data.data(), req.data.size(), keys).ok()) {
            sendLoginResponse(req, 0, 2, 0x00, {});
            return false;
        }
        bool announce = !announced && (csg == 1 || (transit && nsg == 3));
        NegotiationResult r = negotiate(mParams, keys, announce ? 1 : csg, announce);
        announced = announced || announce;
        if (r.statusClass != 0) {
            sendLoginResponse(req, 0, r.statusClass, r.statusDetail, r.response);
            return false;
        }
        if (mParams.initiatorName.empty()) {
            sendLoginResponse(req, 0, 2, 0x07, {});
            return false;
        }
        if (!mParams.discovery && mParams.targetName != mTarget.config().targetName) {
            sendLoginResponse(req, 0, 2, mParams.targetName.empty() ? 0x07 : 0x03, {});
            return false;
        }
        if (!mParams.discovery && !TargetLunTable::GetInstance().transportEnabled()) {
            sendLoginResponse(req, 0, 3, 0x01, {});  // service unavailable
            return false;
        }
        if (csg == 0 && !mParams.authMethodNone && transit) {
            // Security stage left without agreeing on a method: authentication is not offered.
            sendLoginResponse(req, 0, 2, 0x01, r.response);
            return false;
        }
        uint8_t flags = uint8_t(csg << 2);
        if (transit) flags |= uint8_t(0x80 | nsg);
        if (transit && nsg == 3) {
            mTsih = mTarget.registerSession(this, mParams.initiatorName, mIsid, !mParams.discovery);
            mRegistered = true;
            if (!mParams.discovery) r.response.emplace_back("TargetPortalGroupTag", "1");
            if (!sendLoginResponse(req, flags, 0, 0, r.response)) return false;
            ESA_TRACE(tTarget, "connection " << mId << ": session " << mTsih << " of " << mParams.initiatorName
                                              << (mParams.discovery ? " (discovery)" : ""));
            return true;
        }
        if (!sendLoginResponse(req, flags, 0, 0, r.response)) return false;
    }
}

// ---------------------------------------------------------------- full feature phase

bool IscsiConnection::protocolError(const Pdu& pdu, uint8_t reason, const char* why) {
    ESA_CONSOLE("iSCSI target: connection " << mId << " ends: " << why);
    Bhs rej;
    rej.setOpcode(kReject);
    rej.setFlags(0x80);
    rej.b[2] = reason;
    rej.setItt(kReservedTag);
    std::lock_guard<std::mutex> g(mSendLock);
    rej.setDataSegmentLength(kBhsLength);
    fillSequence(rej, true);
    struct iovec iov[2] = {{rej.b, kBhsLength}, {const_cast<uint8_t*>(pdu.bhs.b), kBhsLength}};
    sendIov(iov, 2);
    return false;
}

bool IscsiConnection::fullFeature() {
    for (;;) {
        Pdu pdu;
        if (!readHeader(pdu)) return false;
        StatusCode v = validateInitiatorBhs(pdu.bhs, mParams.targetMaxRecvDataSegment);
        if (v != StatusCode::Success)
            return protocolError(pdu, v == StatusCode::UnknownScsiRequest ? kRejectProtocolError : kRejectInvalidPduField,
                                 "malformed PDU");
        uint8_t op = pdu.bhs.opcode();
        if (mParams.discovery && op != kTextRequest && op != kLogoutRequest && op != kNopOut)
            return protocolError(pdu, kRejectProtocolError, "command in a discovery session");
        bool keep = true;
        switch (op) {
        case kScsiCommand: keep = handleScsiCommand(pdu); break;
        case kDataOut: keep = handleDataOut(pdu); break;
        case kNopOut: keep = handleNopOut(pdu); break;
        case kTaskMgmtRequest: keep = handleTaskManagement(pdu); break;
        case kTextRequest: keep = handleText(pdu); break;
        case kLogoutRequest: return handleLogout(pdu);
        case kSnackRequest: {
            // Error recovery level 0: no SNACK. Reject it and carry on.
            Bhs rej;
            rej.setOpcode(kReject);
            rej.setFlags(0x80);
            rej.b[2] = kRejectCommandNotSupported;
            rej.setItt(kReservedTag);
            std::lock_guard<std::mutex> g(mSendLock);
            rej.setDataSegmentLength(kBhsLength);
            fillSequence(rej, true);
            struct iovec iov[2] = {{rej.b, kBhsLength}, {pdu.bhs.b, kBhsLength}};
            keep = sendIov(iov, 2);
            break;
        }
        default:
            return protocolError(pdu, kRejectProtocolError, "login request in full feature phase");
        }
        if (!keep) return false;
    }
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

bool IscsiConnection::handleNopOut(Pdu& pdu) {
    if (!readSegment(pdu)) return false;
    if (!acceptCmdSn(pdu.bhs)) return true;
    if (pdu.bhs.itt() == kReservedTag) return true;  // an answer to a ping of ours
    Bhs rsp;
    rsp.setOpcode(kNopIn);
    rsp.setFlags(0x80);
    rsp.setLunBytes(pdu.bhs.lunBytes());
    rsp.setItt(pdu.bhs.itt());
    rsp.setWord(20, kReservedTag);
    uint32_t len = std::min<uint32_t>(uint32_t(pdu.data.size()), mParams.initiatorMaxRecvDataSegment);
    return sendPdu(rsp, pdu.data.data(), len, true);
}

bool IscsiConnection::handleText(Pdu& pdu) {
    if (!readSegment(pdu)) return false;
    if (!acceptCmdSn(pdu.bhs)) return true;
    KeyValues keys, answer;
    if (!parseKeyValues(pdu.data.data(), pdu.data.size(), keys).ok())
        return protocolError(pdu, kRejectInvalidPduField, "malformed text keys");
    for (const auto& [k, v] : keys) {
        if (k == "SendTargets") {
            if (v == "All" || v == mTarget.config().targetName || (v.empty() && !mParams.discovery)) {
                struct sockaddr_storage ss = {};
                socklen_t sl = sizeof ss;
                ::getsockname(mFd, reinterpret_cast<sockaddr*>(&ss), &sl);
                char host[INET6_ADDRSTRLEN] = "127.0.0.1";
                uint16_t port = mTarget.port();
                std::string address;
                if (ss.ss_family == AF_INET6) {
                    ::inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6*>(&ss)->sin6_addr, host, sizeof host);
                    address = std::string("[") + host + "]";
                } else {
                    ::inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(&ss)->sin_addr, host, sizeof host);
                    address = host;
                }
                answer.emplace_back("TargetName", mTarget.config().targetName);
                answer.emplace_back("TargetAddress", address + ":" + std::to_string(port) + ",1");
            }
        } else {
            answer.emplace_back(k, "NotUnderstood");
        }
    }
    auto data = buildKeyValues(answer);
    Bhs rsp;
    rsp.setOpcode(kTextResponse);
    rsp.setFlags(0x80);
    rsp.setItt(pdu.bhs.itt());
    rsp.setWord(20, kReservedTag);
    return sendPdu(rsp, data.data(), uint32_t(data.size()), true);
}

bool IscsiConnection::handleLogout(Pdu& pdu) {
    if (!readSegment(pdu)) return false;
    acceptCmdSn(pdu.bhs);
    // Commands still on their way are finished (or given up, if their data
    // never came) before the answer, so the host sees no response after it.
    abortTasks(true, 0);
    drainSubmitted();
    Bhs rsp;
    rsp.setOpcode(kLogoutResponse);
    rsp.setFlags(0x80);
    rsp.b[2] = 0;  // connection or session closed successfully
    rsp.setItt(pdu.bhs.itt());
    sendPdu(rsp, nullptr, 0, true);
    ESA_TRACE(tTarget, "connection " << mId << ": logout");
    return false;
}

bool IscsiConnection::handleTaskManagement(Pdu& pdu) {
    if (!acceptCmdSn(pdu.bhs)) return true;
    uint8_t function = pdu.bhs.flags() & 0x7f;
    uint32_t lun = decodeLun(pdu.bhs.lunBytes());
    uint32_t refItt = pdu.bhs.word20();
    uint8_t response = 0;
    bool endConnection = false;
    bool lunKnown = TargetLunTable::GetInstance().lunPresent(lun);
    switch (function) {
    case 1: {  // ABORT TASK
        std::lock_guard<std::mutex> g(mTaskLock);
        auto it = mTasks.find(refItt);
        if (it == mTasks.end() || it->second->aborted || it->second->responded) {
            response = 1;  // the command has completed already
        } else {
            Task* t = it->second.get();
            t->aborted = true;
            if (!t->submitted) {
                if (t->hasBackendBuffer) mBackend.release(t->cmd);
                mTasks.erase(it);
                --mOutstanding;
            }
        }
        break;
    }
    case 2:  // ABORT TASK SET
    case 4:  // CLEAR TASK SET
    case 5:  // LOGICAL UNIT RESET
        if (!lunKnown) {
            response = 2;
            break;
        }
        abortTasks(false, lun);
        break;
    case 6:  // TARGET WARM RESET
        abortTasks(true, 0);
        break;
    case 7:  // TARGET COLD RESET: the connection goes too
        abortTasks(true, 0);
        endConnection = true;
        break;
    case 8:
        response = 4;  // task reassignment needs error recovery level 2
        break;
    default:
        response = 5;
        break;
    }
    Bhs rsp;
    rsp.setOpcode(kTaskMgmtResponse);
    rsp.setFlags(0x80);
    rsp.b[2] = response;
    rsp.setItt(pdu.bhs.itt());
    bool ok = sendPdu(rsp, nullptr, 0, true);
    return ok && !endConnection;
}

// ---------------------------------------------------------------- SCSI commands

bool IscsiConnection::handleScsiCommand(Pdu& pdu) {
    const Bhs& h = pdu.bhs;
    uint32_t immediateLen = h.dataSegmentLength();
    if (!acceptCmdSn(h)) return skipBytes(padTo4(immediateLen));

    auto task = std::make_unique<Task>();
    Task& t = *task;
    t.itt = h.itt();
    std::memcpy(t.lunBytes, h.lunBytes(), 8);
    t.lun = decodeLun(h.lunBytes());
    t.readFlag = (h.flags() & 0x40) != 0;
    t.writeFlag = (h.flags() & 0x20) != 0;
    t.edtl = h.word20();
    if (!t.writeFlag && immediateLen > 0)
        return protocolError(pdu, kRejectProtocolError, "data with a command that writes nothing");
    if (t.writeFlag && immediateLen > 0 && !mParams.immediateData)
        return protocolError(pdu, kRejectProtocolError, "immediate data not negotiated");
    if (immediateLen > t.edtl || immediateLen > mParams.firstBurstLength)
        return protocolError(pdu, kRejectProtocolError, "immediate data beyond the transfer length");
    if (t.writeFlag && !h.final() && mParams.initialR2T)
        return protocolError(pdu, kRejectProtocolError, "unsolicited data not negotiated");
    {
        std::lock_guard<std::mutex> g(mTaskLock);
        if (mTasks.count(t.itt))
            return protocolError(pdu, kRejectInvalidPduField, "task tag already in use");
    }
    std::memcpy(t.cmd.cdb, h.cdb(), 16);
    t.cmd.lun = t.lun;
    t.cmd.owner = &t;
    t.cmd.completion = this;
    t.decision = mResponder.decide(h.cdb(), 16, t.lun);
    const scsi::Decision& d = t.decision;

    using Kind = scsi::Decision::Kind;
    Task* raw = task.get();
    {
        std::lock_guard<std::mutex> g(mTaskLock);
        mTasks.emplace(t.itt, std::move(task));
        ++mOutstanding;
    }

    if (d.kind == Kind::Answered || d.kind == Kind::Check) {
        if (!skipBytes(padTo4(immediateLen))) return false;
        finishLocally(raw, d);
        return true;
    }
    switch (d.kind) {
    case Kind::Read:
        t.cmd.kind = TargetCommand::Kind::Read;
        t.cmd.lba = d.lba;
        t.cmd.blocks = d.blocks;
        t.cmd.fua = d.fua;
        break;
    case Kind::SyncCache:
        t.cmd.kind = TargetCommand::Kind::SyncCache;
        t.cmd.lba = d.lba;
        t.cmd.blocks = d.blocks;
        break;
    case Kind::Write: {
        t.cmd.kind = TargetCommand::Kind::Write;
        t.cmd.lba = d.lba;
        t.cmd.fua = d.fua;
        // The host sends EDTL bytes; what lands is the smaller of that and the
        // CDB's length. A length that stops inside a block is refused once
        // the data are in.
        uint64_t tl = uint64_t(d.blocks) * scsi::kBlockSize;
        uint64_t land = std::min<uint64_t>(t.writeFlag ? t.edtl : 0, tl);
        t.partialBlock = land % scsi::kBlockSize != 0;
        t.cmd.blocks = uint32_t(land / scsi::kBlockSize);
        if (t.partialBlock) t.cmd.blocks = 0;
        t.landing = t.cmd.blocks * scsi::kBlockSize;
        break;
    }
    case Kind::Management:
        t.cmd.kind = TargetCommand::Kind::Management;
        if (t.writeFlag && t.edtl > kMaxManagementBytes) {
            if (!skipBytes(padTo4(immediateLen))) return false;
            finishLocally(raw, [] {
                scsi::Decision c;
                c.status = scsi::kStatusCheckCondition;
                c.sense = scsi::kInvalidFieldInCdb;
                return c;
            }());
            return true;
        }
        t.landing = t.writeFlag ? t.edtl : 0;
        t.cmd.dataInLimit = t.readFlag ? t.edtl : 0;
        break;
    default:
        break;
    }

    if (t.writeFlag && t.edtl > 0) {
        if (t.landing > 0) {
            uint8_t* buf = t.cmd.kind == TargetCommand::Kind::Write ? mBackend.writeBuffer(t.cmd) : nullptr;
            if (buf == nullptr) {
                t.ownBuffer.resize(t.landing);
                buf = t.ownBuffer.data();
            } else {
                t.hasBackendBuffer = true;
            }
            t.buffer = buf;
        }
        t.cmd.dataOut = t.buffer;
        t.cmd.dataOutLength = t.landing;
        if (immediateLen && !receiveInto(t, 0, immediateLen)) return false;
        t.received = immediateLen;
        t.unsolicited = !h.final();
        t.burstEnd = std::min(t.edtl, mParams.firstBurstLength);
        t.receiving = true;
        return startWriteTransfer(t);
    }
    if (!skipBytes(padTo4(immediateLen))) return false;
    executeTask(raw);
    return true;
}

// Called when the unsolicited part is over or a burst has ended: asks for
// the next burst, or runs the command once every byte is in.
bool IscsiConnection::startWriteTransfer(Task& t) {
    if (t.unsolicited) return true;  // Data-Out PDUs still to come without an R2T
    if (t.received < t.edtl) return sendR2T(t);
    t.receiving = false;
    executeTask(&t);
    return true;
}

bool IscsiConnection::sendR2T(Task& t) {
    uint32_t len = std::min(mParams.maxBurstLength, t.edtl - t.received);
    t.ttt = mNextTtt++;
    if (t.ttt == kReservedTag) t.ttt = mNextTtt++;
    t.burstEnd = t.received + len;
    t.expectedDataSn = 0;
    Bhs r2t;
    r2t.setOpcode(kReadyToTransfer);
    r2t.setFlags(0x80);
    r2t.setLunBytes(t.lunBytes);
    r2t.setItt(t.itt);
    r2t.setWord(20, t.ttt);
    r2t.setWord(36, t.r2tSn++);
    r2t.setWord(40, t.received);
    r2t.setWord(44, len);
    return sendPdu(r2t, nullptr, 0, false);
}

bool IscsiConnection::handleDataOut(Pdu& pdu) {
    const Bhs& h = pdu.bhs;
    uint32_t len = h.dataSegmentLength();
    Task* t = findTask(h.itt());
    // Data for a command that has been answered or aborted are dropped.
    if (t == nullptr || !t->receiving) return skipBytes(padTo4(len));
    uint32_t ttt = h.word20();
    uint32_t offset = h.word40();
    if (ttt == kReservedTag ? !t->unsolicited : ttt != t->ttt)
        return protocolError(pdu, kRejectProtocolError, "Data-Out with a wrong transfer tag");
    // A Data-Out out of sequence fails the command, not the session: the data
    // still go by their buffer offset and the command ends in a data phase error.
    if (h.word36() != t->expectedDataSn) t->dataPhaseError = true;
    if (offset != t->received || uint64_t(offset) + len > t->burstEnd)
        return protocolError(pdu, kRejectProtocolError, "Data-Out outside the burst");
    if (!receiveInto(*t, offset, len)) return false;
    t->received += len;
    ++t->expectedDataSn;
    if (!h.final()) {
        if (t->received == t->burstEnd && !t->unsolicited)
            return protocolError(pdu, kRejectProtocolError, "burst complete without the final flag");
        return true;
    }
    if (t->unsolicited) {
        t->unsolicited = false;
    } else if (t->received != t->burstEnd) {
        return protocolError(pdu, kRejectProtocolError, "final Data-Out before the end of the burst");
    }
    return startWriteTransfer(*t);
}

void IscsiConnection::finishLocally(Task* t, const scsi::Decision& d) {
    if (d.kind == scsi::Decision::Kind::Answered) {
        std::vector<TargetSegment> seg;
        if (!d.data.empty()) seg.push_back({d.data.data(), uint32_t(d.data.size())});
        sendDataAndStatus(*t, seg, d.data.size(), scsi::kStatusGood, {});
    } else {
        sendDataAndStatus(*t, {}, 0, d.status, d.sense);
    }
    removeTask(t);
}

void IscsiConnection::executeTask(Task* t) {
    if (t->cmd.kind == TargetCommand::Kind::Write || t->cmd.kind == TargetCommand::Kind::Management) {
        scsi::Decision local;
        if (t->partialBlock || t->dataPhaseError) {
            local.status = scsi::kStatusCheckCondition;
            local.sense = t->dataPhaseError ? scsi::kDataPhaseError : scsi::kInvalidFieldInInformationUnit;
            sendDataAndStatus(*t, {}, 0, local.status, local.sense);
            removeTask(t);
            return;
        }
        if (t->cmd.kind == TargetCommand::Kind::Write && t->cmd.blocks == 0) {  // nothing to write: answer now
            local.kind = scsi::Decision::Kind::Answered;
            finishLocally(t, local);
            return;
        }
    }
    {
        std::lock_guard<std::mutex> g(mTaskLock);
        t->submitted = true;
        ++mSubmitted;
    }
    mBackend.submit(t->cmd);
}

void IscsiConnection::commandDone(TargetCommand& cmd) {
    Task* t = static_cast<Task*>(cmd.owner);
    bool aborted;
    {
        std::lock_guard<std::mutex> g(mTaskLock);
        aborted = t->aborted;
        t->responded = !aborted;
    }
    if (!aborted) {
        bool write = cmd.kind == TargetCommand::Kind::Write;
        if (cmd.status.ok()) {
            uint64_t available = 0;
            if (cmd.kind == TargetCommand::Kind::Read) {
                available = uint64_t(cmd.blocks) * scsi::kBlockSize;
            } else if (cmd.kind == TargetCommand::Kind::Management) {
                for (const auto& s : cmd.dataIn) available += s.length;
            }
            sendDataAndStatus(*t, cmd.dataIn, available, scsi::kStatusGood, {});
        } else {
            sendDataAndStatus(*t, {}, 0, scsi::kStatusCheckCondition, scsi::senseForStatus(cmd.status, write));
        }
    }
    std::lock_guard<std::mutex> g(mTaskLock);
    mBackend.release(t->cmd);
    --mSubmitted;
    mTasks.erase(t->itt);
    --mOutstanding;
    mTaskDone.notify_all();
}

// Sends data-in (cut to what the host expects) and the status. With GOOD
// status the status rides on the last Data-In PDU.
void IscsiConnection::sendDataAndStatus(Task& t, const std::vector<TargetSegment>& data, uint64_t available,
                                        uint8_t status, const scsi::Sense& sense) {
    uint64_t expected = t.readFlag ? t.edtl : 0;
    uint64_t produced = available;
    uint8_t residualFlags = 0;
    uint32_t residual = 0;
    if (t.cmd.kind == TargetCommand::Kind::Write) {
        // Writes: compare what the host offered with what the CDB asked for.
        uint64_t tl = uint64_t(t.decision.blocks) * scsi::kBlockSize;
        uint64_t offered = t.writeFlag ? t.edtl : 0;
        if (offered > tl) { residualFlags = 0x02; residual = uint32_t(offered - tl); }
        else if (offered < tl) { residualFlags = 0x04; residual = uint32_t(tl - offered); }
        sendScsiResponse(t, status, sense, residualFlags, residual);
        return;
    }
    uint64_t toSend = std::min(expected, produced);
    if (produced > expected) { residualFlags = 0x04; residual = uint32_t(produced - expected); }
    else if (produced < expected) { residualFlags = 0x02; residual = uint32_t(expected - produced); }
    if (toSend == 0 || status != scsi::kStatusGood) {
        sendScsiResponse(t, status, sense, residualFlags, residual);
        return;
    }

    const uint32_t maxPdu = mParams.initiatorMaxRecvDataSegment;
    const uint32_t burst = mParams.maxBurstLength;
    std::vector<Bhs> headers((toSend + maxPdu - 1) / maxPdu);
    std::vector<struct iovec> iov;
    iov.reserve(headers.size() * 3 + data.size() * 2);
    size_t seg = 0;
    uint32_t segOff = 0;
    uint64_t offset = 0;
    std::lock_guard<std::mutex> g(mSendLock);
    for (size_t i = 0; i < headers.size(); ++i) {
        uint32_t len = uint32_t(std::min<uint64_t>(maxPdu, toSend - offset));
        bool last = offset + len == toSend;
        // A burst ends every MaxBurstLength bytes; its last PDU carries the F bit.
        uint64_t nextBurstEnd = (offset / burst + 1) * burst;
        Bhs& h = headers[i];
        h.setOpcode(kDataIn);
        uint8_t flags = 0;
        if (last) flags = uint8_t(0x80 | 0x01 | residualFlags);
        else if (offset + len >= nextBurstEnd) flags = 0x80;
        h.setFlags(flags);
        h.b[3] = last ? status : 0;
        h.setItt(t.itt);
        h.setWord(20, kReservedTag);
        h.setDataSegmentLength(len);
        fillSequence(h, last);
        h.setWord(36, uint32_t(i));
        h.setWord(40, uint32_t(offset));
        if (last) h.setWord(44, residual);
        iov.push_back({h.b, kBhsLength});
        uint32_t need = len;
        while (need > 0 && seg < data.size()) {
            uint32_t take = std::min(need, data[seg].length - segOff);
            iov.push_back({const_cast<uint8_t*>(data[seg].data + segOff), take});
            need -= take;
            segOff += take;
            if (segOff == data[seg].length) { ++seg; segOff = 0; }
        }
        if (padTo4(len) != len) iov.push_back({const_cast<uint8_t*>(kZeroPad), padTo4(len) - len});
        offset += len;
    }
    sendIov(iov.data(), int(iov.size()));
}

void IscsiConnection::sendScsiResponse(Task& t, uint8_t status, const scsi::Sense& sense, uint8_t residualFlags,
                                       uint32_t residual) {
    Bhs rsp;
    rsp.setOpcode(kScsiResponse);
    rsp.setFlags(uint8_t(0x80 | residualFlags));
    rsp.b[2] = 0;  // command completed at target
    rsp.b[3] = status;
    rsp.setItt(t.itt);
    rsp.setWord(36, 0);
    rsp.setWord(44, residual);
    std::vector<uint8_t> senseData;
    if (status == scsi::kStatusCheckCondition) {
        auto s = scsi::fixedSenseData(sense);
        senseData.resize(2);
        putBe16(senseData.data(), uint16_t(s.size()));
        senseData.insert(senseData.end(), s.begin(), s.end());
    }
    sendPdu(rsp, senseData.data(), uint32_t(senseData.size()), true);
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

void IscsiConnection::drainSubmitted() {
    std::unique_lock<std::mutex> g(mTaskLock);
    mTaskDone.wait(g, [&] { return mSubmitted == 0; });
}
