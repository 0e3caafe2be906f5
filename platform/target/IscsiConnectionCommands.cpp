// IscsiConnection: the full feature phase loop and the PDUs that are not
// SCSI commands: NOP-Out, text (SendTargets), logout, task management, and
// the reject that ends a connection on a protocol error.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "platform/target/IscsiConnectionTask.h"
#include "platform/target/IscsiTarget.h"
#include "platform/target/TargetLunTable.h"

using namespace iscsi;
using namespace iscsi_connection;

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
        if (function == 5) mTarget.abortInOtherSessions(this, false, lun);  // a reset reaches every initiator
        break;
    case 6:  // TARGET WARM RESET
        abortTasks(true, 0);
        mTarget.abortInOtherSessions(this, true, 0);
        break;
    case 7:  // TARGET COLD RESET: the connection goes too
        abortTasks(true, 0);
        mTarget.abortInOtherSessions(this, true, 0);
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
