#include "platform/target/IscsiTarget.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/time.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/target/IscsiConnection.h"
#include "util/Trace.h"

namespace {
Trace tPortal("Target", "Iscsi", "Portal", false);
constexpr int kLoginTimeoutSeconds = 30;

bool splitPortal(const std::string& portal, std::string& host, std::string& port) {
    size_t colon = portal.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == portal.size()) return false;
    host = portal.substr(0, colon);
    port = portal.substr(colon + 1);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    return true;
}
}  // namespace

IscsiTargetConfig IscsiTargetConfig::fromEnvironment() {
    IscsiTargetConfig c;
    if (const char* p = std::getenv("ESA_PORTAL"); p && *p) c.portal = p;
    if (const char* chap = std::getenv("ESA_CHAP"); chap && std::strchr(chap, ':')) {
        std::string s = chap;
        c.chapUser = s.substr(0, s.find(':'));
        c.chapSecret = s.substr(s.find(':') + 1);
    }
    return c;
}

IscsiTarget::IscsiTarget(TargetBackend& backend, IscsiTargetConfig config)
    : mBackend(backend), mConfig(std::move(config)), mResponder(mConfig.targetName) {}

IscsiTarget::~IscsiTarget() { stop(); }

StatusCode IscsiTarget::start() {
    std::string host, port;
    if (!splitPortal(mConfig.portal, host, port)) {
        ESA_CONSOLE("iSCSI target: bad portal \"" << mConfig.portal << "\", expected host:port");
        return StatusCode::BadCommand;
    }
    struct addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    struct addrinfo* res = nullptr;
    if (::getaddrinfo(host.c_str(), port.c_str(), &hints, &res) != 0 || res == nullptr) {
        ESA_CONSOLE("iSCSI target: cannot resolve portal \"" << mConfig.portal << "\"");
        return StatusCode::BadCommand;
    }
    int fd = ::socket(res->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (fd < 0 || ::bind(fd, res->ai_addr, res->ai_addrlen) != 0 || ::listen(fd, 64) != 0) {
        ESA_CONSOLE("iSCSI target: cannot listen on " << mConfig.portal << ": " << std::strerror(errno));
        if (fd >= 0) ::close(fd);
        ::freeaddrinfo(res);
        return StatusCode::InitFailed;
    }
    ::freeaddrinfo(res);
    struct sockaddr_storage ss = {};
    socklen_t sl = sizeof ss;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &sl);
    mPort = ntohs(ss.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&ss)->sin6_port
                                           : reinterpret_cast<sockaddr_in*>(&ss)->sin_port);
    mListenFd = fd;
    mStopping = false;
    mAcceptThread = std::thread([this] { acceptLoop(); });
    ESA_TRACE(tPortal, "listening on " << host << ":" << mPort << " as " << mConfig.targetName);
    return StatusCode::Success;
}

void IscsiTarget::stop() {
    if (mListenFd < 0) return;
    mStopping = true;
    ::shutdown(mListenFd, SHUT_RDWR);
    if (mAcceptThread.joinable()) mAcceptThread.join();
    ::close(mListenFd);
    mListenFd = -1;
    std::unique_lock<std::mutex> g(mLock);
    for (auto& [id, conn] : mConnections) conn->shutdownSocket();
    mIdle.wait(g, [&] { return mConnections.empty(); });
}

void IscsiTarget::acceptLoop() {
    while (!mStopping) {
        struct pollfd p = {mListenFd, POLLIN, 0};
        int r = ::poll(&p, 1, 200);
        if (r <= 0) continue;
        int fd = ::accept4(mListenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (mStopping) break;
            continue;
        }
        // No Nagle: a status must not wait for more data. The buffer sizes are
        // left to the kernel's autotuning, which grows them to several MiB
        // for a streaming connection; fixing them (tried: 4 MiB) gave nothing
        // and switches autotuning off.
        int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        // A host that connects and never logs in gives its connection up after a while.
        struct timeval loginTimeout = {kLoginTimeoutSeconds, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &loginTimeout, sizeof loginTimeout);
        std::shared_ptr<IscsiConnection> conn;
        {
            std::lock_guard<std::mutex> g(mLock);
            uint64_t id = mNextConnectionId++;
            conn = std::make_shared<IscsiConnection>(*this, fd, id);
            mConnections[id] = conn;
        }
        std::thread([this, conn] { connectionThread(conn); }).detach();
    }
}

void IscsiTarget::connectionThread(std::shared_ptr<IscsiConnection> conn) {
    conn->run();
    std::lock_guard<std::mutex> g(mLock);
    mConnections.erase(conn->id());
    conn.reset();
    mIdle.notify_all();
}

uint16_t IscsiTarget::registerSession(IscsiConnection* conn, const std::string& initiator, uint64_t isid, bool normal) {
    bool linkUp = false;
    uint16_t tsih;
    {
        std::lock_guard<std::mutex> g(mLock);
        for (auto& [t, s] : mSessions)
            if (s.initiator == initiator && s.isid == isid && s.conn != conn) s.conn->shutdownSocket();
        do {
            tsih = mNextTsih++;
        } while (tsih == 0 || mSessions.count(tsih));
        mSessions[tsih] = SessionEntry{conn, initiator, isid, normal};
        if (normal && mNormalSessions++ == 0) linkUp = true;
    }
    if (linkUp) mBackend.linkEvent(true);
    return tsih;
}

void IscsiTarget::unregisterSession(IscsiConnection* conn) {
    bool linkDown = false;
    {
        std::lock_guard<std::mutex> g(mLock);
        for (auto it = mSessions.begin(); it != mSessions.end(); ++it) {
            if (it->second.conn != conn) continue;
            if (it->second.normal && --mNormalSessions == 0) linkDown = true;
            mSessions.erase(it);
            break;
        }
    }
    if (linkDown) mBackend.linkEvent(false);
}

void IscsiTarget::abortInOtherSessions(IscsiConnection* from, bool allLuns, uint32_t lun) {
    std::lock_guard<std::mutex> g(mLock);
    for (auto& [id, conn] : mConnections)
        if (conn.get() != from) conn->markAborted(allLuns, lun);
}

size_t IscsiTarget::connectionCount() {
    std::lock_guard<std::mutex> g(mLock);
    return mConnections.size();
}

size_t IscsiTarget::sessionCount() {
    std::lock_guard<std::mutex> g(mLock);
    return mSessions.size();
}
