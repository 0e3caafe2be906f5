// IscsiConnection: login, from the first request to the full feature phase.
#include <cstring>

#include "platform/target/IscsiChap.h"
#include "platform/target/IscsiConnectionTask.h"
#include "platform/target/IscsiTarget.h"
#include "platform/target/TargetLunTable.h"

using namespace iscsi;
using namespace iscsi_connection;

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
    const IscsiTargetConfig& cfg = mTarget.config();
    mParams.chapRequired = !cfg.chapUser.empty();
    IscsiChap chap(cfg.chapUser, cfg.chapSecret);
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
        KeyValues chapKeys;
        for (auto it = keys.begin(); it != keys.end();) {
            if (it->first.rfind("CHAP_", 0) == 0) {
                chapKeys.push_back(*it);
                it = keys.erase(it);
            } else {
                ++it;
            }
        }
        NegotiationResult r = negotiate(mParams, keys, announce ? 1 : csg, announce);
        announced = announced || announce;
        if (r.statusClass != 0) {
            sendLoginResponse(req, 0, r.statusClass, r.statusDetail, r.response);
            return false;
        }
        if (!chapKeys.empty()) {
            if (csg != 0 || !mParams.authMethodChap || chap.handle(chapKeys, r.response) == IscsiChap::Step::Failed) {
                ESA_CONSOLE("iSCSI target: CHAP authentication of " << mParams.initiatorName << " failed");
                sendLoginResponse(req, 0, 2, 0x01, {});
                return false;
            }
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
        bool authenticated = mParams.chapRequired ? chap.step() == IscsiChap::Step::Passed : mParams.authMethodNone;
        if (csg == 0 && transit && !authenticated) {
            if (mParams.authMethodChap && chap.step() != IscsiChap::Step::Failed) {
                transit = false;  // CHAP still under way: stay in the security stage
            } else {
                // Security stage left without agreeing on a method.
                sendLoginResponse(req, 0, 2, 0x01, r.response);
                return false;
            }
        }
        if (csg != 0 && mParams.chapRequired && !authenticated) {
            sendLoginResponse(req, 0, 2, 0x01, {});  // the security stage was skipped
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
