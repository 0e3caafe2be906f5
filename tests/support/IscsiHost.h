#pragma once
// A test host on esa's iSCSI target through libiscsi (the initiator's side,
// not the target's IscsiConnection): one synchronous connection to LUN 0 of
// the array's target, the portal esa printed when it chose a free port
// itself, and a free local port for a portal chosen ahead of a start.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <regex>
#include <string>

extern "C" {
#include <iscsi/iscsi.h>
#include <iscsi/scsi-lowlevel.h>
}

#include "tests/support/EsaProcess.h"

constexpr const char* kEsaTargetName = "iqn.2026-11.local.esa:array";

struct IscsiHostConnection {
    iscsi_context* ctx = nullptr;
    IscsiHostConnection() = default;
    IscsiHostConnection(const IscsiHostConnection&) = delete;
    IscsiHostConnection& operator=(const IscsiHostConnection&) = delete;
    ~IscsiHostConnection() {
        if (ctx) iscsi_destroy_context(ctx);
    }
    // `initiator` makes the initiator's name unique among the test's connections.
    bool open(uint16_t port, const std::string& initiator) {
        if (ctx) iscsi_destroy_context(ctx);
        std::string name = "iqn.2026-11.local.test:" + initiator + "-" + std::to_string(::getpid());
        ctx = iscsi_create_context(name.c_str());
        if (!ctx) return false;
        iscsi_set_targetname(ctx, kEsaTargetName);
        iscsi_set_session_type(ctx, ISCSI_SESSION_NORMAL);
        iscsi_set_header_digest(ctx, ISCSI_HEADER_DIGEST_NONE);
        iscsi_set_noautoreconnect(ctx, 1);
        iscsi_set_timeout(ctx, 30);
        std::string portal = "127.0.0.1:" + std::to_string(port);
        return iscsi_full_connect_sync(ctx, portal.c_str(), 0) == 0;
    }
};

// The port esa listens on, from its output ("listening on H:P (port N)"); 0 if none.
inline uint16_t iscsiPortOf(EsaProcess& esa) {
    if (!esa.waitForOutput("listening on")) return 0;
    std::smatch m;
    std::string out = esa.output();
    if (!std::regex_search(out, m, std::regex("listening on [0-9.]+:[0-9]+ \\(port ([0-9]+)\\)"))) return 0;
    return uint16_t(std::stoul(m[1]));
}

// A local port free at the moment of asking, for a portal fixed before esa starts.
inline uint16_t freeLocalPort() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return 0;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    uint16_t port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
        port = ntohs(a.sin_port);
    ::close(fd);
    return port;
}
