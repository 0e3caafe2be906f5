#pragma once
// TestInitiator: a bare-bones iSCSI initiator for the target's tests. It
// builds PDUs byte by byte, so a test can send exactly what it wants,
// malformed or out of order, and read back each PDU the target sends. Every
// receive has a timeout, so a target that stays silent fails the test
// instead of hanging it.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "platform/target/IscsiPdu.h"

// A 16-byte data CDB (READ(16), WRITE(16) and their like): opcode, LBA, blocks.
inline std::vector<uint8_t> dataCdb16(uint8_t op, uint64_t lba, uint32_t blocks) {
    std::vector<uint8_t> c(16, 0);
    c[0] = op;
    iscsi::putBe64(&c[2], lba);
    iscsi::putBe32(&c[10], blocks);
    return c;
}

class TestInitiator {
public:
    // Each initiator has its own ISID, so that two are two sessions.
    TestInitiator() : mIsid(nextIsid()) {}
    ~TestInitiator() { close(); }
    TestInitiator(const TestInitiator&) = delete;
    TestInitiator& operator=(const TestInitiator&) = delete;

    bool connect(uint16_t port, int timeoutSeconds = 10) {
        mFd = ::socket(AF_INET, SOCK_STREAM, 0);
        struct timeval tv = {timeoutSeconds, 0};
        ::setsockopt(mFd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        int one = 1;
        ::setsockopt(mFd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        struct sockaddr_in a = {};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return ::connect(mFd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    }
    void close() {
        if (mFd >= 0) ::close(mFd);
        mFd = -1;
    }
    // Resets the connection at once (RST), as a host that crashed would.
    void abortConnection() {
        struct linger l = {1, 0};
        ::setsockopt(mFd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
        close();
    }

    bool sendRaw(const void* p, size_t n) { return ::send(mFd, p, n, MSG_NOSIGNAL) == ssize_t(n); }

    bool send(iscsi::Bhs bhs, const std::vector<uint8_t>& data = {}) {
        bhs.setDataSegmentLength(uint32_t(data.size()));
        std::vector<uint8_t> out(bhs.b, bhs.b + iscsi::kBhsLength);
        out.insert(out.end(), data.begin(), data.end());
        out.resize(iscsi::kBhsLength + iscsi::padTo4(uint32_t(data.size())), 0);
        return sendRaw(out.data(), out.size());
    }

    // False on timeout or end of connection.
    bool receive(iscsi::Pdu& pdu) {
        if (!readAll(pdu.bhs.b, iscsi::kBhsLength)) return false;
        uint32_t len = pdu.bhs.dataSegmentLength();
        std::vector<uint8_t> data(size_t(pdu.bhs.totalAhsWords()) * 4 + iscsi::padTo4(len));
        if (!data.empty() && !readAll(data.data(), data.size())) return false;
        pdu.data.assign(data.begin() + pdu.bhs.totalAhsWords() * 4, data.begin() + pdu.bhs.totalAhsWords() * 4 + len);
        return true;
    }
    // True when the target has closed the connection (end of file or reset).
    bool closedByPeer() {
        uint8_t b;
        ssize_t r = ::recv(mFd, &b, 1, 0);
        return r == 0 || (r < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
    }

    // Logs in to the full feature phase in one operational-stage request.
    // Returns the login status (class << 8 | detail); keys answered in `answer`.
    int login(const std::string& target, const iscsi::KeyValues& extra = {}, bool discovery = false,
              iscsi::KeyValues* answer = nullptr) {
        iscsi::Bhs b;
        b.setOpcode(0x40 | iscsi::kLoginRequest);
        b.setFlags(0x80 | (1 << 2) | 3);
        b.b[8] = 0x80;  // ISID: random format
        iscsi::putBe32(b.b + 10, mIsid);
        b.setItt(mItt++);
        b.setWord(24, mCmdSn);
        b.setWord(28, mExpStatSn);
        iscsi::KeyValues keys = {{"InitiatorName", "iqn.2026-11.local.esa:unit-test"},
                                 {"SessionType", discovery ? "Discovery" : "Normal"},
                                 {"HeaderDigest", "None"},
                                 {"DataDigest", "None"}};
        if (!discovery) keys.emplace_back("TargetName", target);
        keys.insert(keys.end(), extra.begin(), extra.end());
        if (!send(b, iscsi::buildKeyValues(keys))) return -1;
        iscsi::Pdu rsp;
        if (!receive(rsp) || rsp.bhs.opcode() != iscsi::kLoginResponse) return -1;
        mExpStatSn = rsp.bhs.cmdSn() + 1;
        if (answer) iscsi::parseKeyValues(rsp.data.data(), rsp.data.size(), *answer);
        return (rsp.bhs.b[36] << 8) | rsp.bhs.b[37];
    }

    iscsi::Bhs scsiCommand(uint32_t itt, uint32_t lun, const std::vector<uint8_t>& cdb, bool read, bool write,
                           uint32_t edtl, bool final = true) {
        iscsi::Bhs b;
        b.setOpcode(iscsi::kScsiCommand);
        b.setFlags(uint8_t((final ? 0x80 : 0) | (read ? 0x40 : 0) | (write ? 0x20 : 0) | 0x01));
        iscsi::encodeLun(lun, b.b + 8);
        b.setItt(itt);
        b.setWord(20, edtl);
        b.setWord(24, mCmdSn++);
        b.setWord(28, mExpStatSn);
        std::memcpy(b.b + 32, cdb.data(), std::min<size_t>(16, cdb.size()));
        return b;
    }
    iscsi::Bhs dataOut(uint32_t itt, uint32_t ttt, uint32_t dataSn, uint32_t offset, bool final) {
        iscsi::Bhs b;
        b.setOpcode(iscsi::kDataOut);
        b.setFlags(final ? 0x80 : 0);
        b.setItt(itt);
        b.setWord(20, ttt);
        b.setWord(28, mExpStatSn);
        b.setWord(36, dataSn);
        b.setWord(40, offset);
        return b;
    }
    iscsi::Bhs nopOut(uint32_t itt) {
        iscsi::Bhs b;
        b.setOpcode(0x40 | iscsi::kNopOut);
        b.setFlags(0x80);
        b.setItt(itt);
        b.setWord(20, iscsi::kReservedTag);
        b.setWord(24, mCmdSn);
        b.setWord(28, mExpStatSn);
        return b;
    }
    iscsi::Bhs taskManagement(uint32_t itt, uint8_t function, uint32_t lun, uint32_t refItt, uint32_t refCmdSn) {
        iscsi::Bhs b;
        b.setOpcode(0x40 | iscsi::kTaskMgmtRequest);
        b.setFlags(uint8_t(0x80 | function));
        iscsi::encodeLun(lun, b.b + 8);
        b.setItt(itt);
        b.setWord(20, refItt);
        b.setWord(24, mCmdSn);
        b.setWord(28, mExpStatSn);
        b.setWord(32, refCmdSn);
        return b;
    }
    iscsi::Bhs textRequest(uint32_t itt) {
        iscsi::Bhs b;
        b.setOpcode(0x40 | iscsi::kTextRequest);
        b.setFlags(0x80);
        b.setItt(itt);
        b.setWord(20, iscsi::kReservedTag);
        b.setWord(24, mCmdSn);
        b.setWord(28, mExpStatSn);
        return b;
    }
    iscsi::Bhs logout(uint32_t itt) {
        iscsi::Bhs b;
        b.setOpcode(0x40 | iscsi::kLogoutRequest);
        b.setFlags(0x80);
        b.setItt(itt);
        b.setWord(24, mCmdSn);
        b.setWord(28, mExpStatSn);
        return b;
    }

    uint32_t cmdSn() const { return mCmdSn; }
    void setCmdSn(uint32_t sn) { mCmdSn = sn; }
    void setIsid(uint32_t isid) { mIsid = isid; }

private:
    bool readAll(uint8_t* p, size_t n) {
        while (n > 0) {
            ssize_t r = ::recv(mFd, p, n, 0);
            if (r <= 0) return false;
            p += r;
            n -= size_t(r);
        }
        return true;
    }

    int mFd = -1;
    uint32_t mCmdSn = 1;
    uint32_t mExpStatSn = 0;
    uint32_t mItt = 0x1000;
    uint32_t mIsid;
    static uint32_t nextIsid() {
        static std::atomic<uint32_t> next{0x1000};
        return next++;
    }
};
