#include "tools/esactl/StatusPage.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "tools/esactl/MgmtClient.h"
#include "tools/esactl/MgmtRecords.h"

namespace esactl {
namespace {
constexpr int kRefreshSeconds = 3;

std::string escape(const std::string& s) {
    std::string out;
    for (char c : s) {
        switch (c) {
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '&': out += "&amp;"; break;
        case '"': out += "&quot;"; break;
        default: out += c;
        }
    }
    return out;
}

const char* kStyle = R"(body{font-family:sans-serif;background:#f4f4f4;margin:1.5em}
.box{display:flex;gap:6px;background:#333;padding:12px;border-radius:8px;width:max-content}
.slot{width:70px;height:120px;background:#555;border-radius:4px;color:#eee;font-size:11px;
 display:flex;flex-direction:column;align-items:center;justify-content:space-between;padding:6px}
.light{width:18px;height:18px;border-radius:50%;background:#222;border:1px solid #000}
.light.green{background:#2c2}.light.red{background:#d22}.light.yellow{background:#ec2}
.light.flash-red{animation:fr 1.8s steps(1) infinite}
.light.flash-yellow-green{animation:fyg 1.8s steps(1) infinite}
.light.flash-red-green{animation:frg 1.8s steps(1) infinite}
.light.flash-red-yellow{animation:fry 1.8s steps(1) infinite}
@keyframes fr{0%{background:#d22}50%{background:#222}}
@keyframes fyg{0%{background:#ec2}50%{background:#2c2}}
@keyframes frg{0%{background:#d22}50%{background:#2c2}}
@keyframes fry{0%{background:#d22}50%{background:#ec2}}
.meter{display:flex;gap:2px;margin:6px 0}.meter span{width:16px;height:10px;background:#ccc}
.meter span.on{background:#2a2}table{border-collapse:collapse}td,th{border:1px solid #bbb;padding:2px 8px})";
}  // namespace

std::string renderStatusPage(const std::string& portal, const std::string& error) {
    std::ostringstream h;
    h << "<!DOCTYPE html><html><head><meta charset=\"utf-8\"><meta http-equiv=\"refresh\" content=\""
      << kRefreshSeconds << "\"><title>ESA status</title><style>" << kStyle << "</style></head><body>";
    MgmtClient client;
    Snapshot snap;
    std::vector<std::string> events;
    std::string problem = error;
    bool refused = false;
    if (problem.empty() && !client.connect(portal)) problem = client.lastError();
    if (problem.empty() && !readSnapshot(client, snap, problem, refused)) {
        if (problem.empty()) problem = "the appliance gave no status";
    }
    if (!problem.empty()) {
        h << "<h1>ESA</h1><p id=\"error\">" << escape(problem) << "</p></body></html>";
        return h.str();
    }
    std::string eventError;
    readEvents(client, events, eventError);
    h << "<h1 id=\"name\">" << escape(snap.name) << "</h1>";
    h << "<p id=\"pack\">" << (snap.packLoaded ? "Pack loaded" : "No pack loaded") << " &middot; firmware "
      << escape(snap.firmware) << " &middot; protocol " << snap.protocolMajor << "." << snap.protocolMinor << "</p>";
    h << "<h2>Slots</h2><div class=\"box\" id=\"front\">";
    for (const Snapshot::Slot& s : snap.slots) {
        const std::string light = colourName(s.colour), state = slotState(s);
        h << "<div class=\"slot\" id=\"slot-" << s.slot << "\" data-state=\"" << state << "\" data-light=\"" << light
          << "\"><span>" << s.slot << "</span><div class=\"light " << light << "\"></div><span>" << escape(state)
          << "</span><span>" << (s.sizeBytes ? bytesText(s.sizeBytes) : "") << "</span></div>";
    }
    h << "</div>";
    const int meter = meterPercent(snap);
    h << "<h2>Capacity</h2><div class=\"meter\" id=\"meter\" data-percent=\"" << meter << "\">";
    for (int i = 0; i < 10; ++i) h << "<span" << (meter > i * 10 ? " class=\"on\"" : "") << "></span>";
    h << "</div><p id=\"capacity\" data-used=\"" << snap.usedBytes << "\" data-total=\"" << snap.totalBytes
      << "\">Used " << bytesText(snap.usedBytes) << " of " << bytesText(snap.totalBytes) << ", free "
      << bytesText(snap.freeBytes) << "</p>";
    h << "<h2>LUNs</h2><table id=\"luns\"><tr><th>LUN</th><th>Size</th><th>Used</th></tr>";
    for (const Snapshot::Lun& l : snap.luns) {
        int64_t used = lunUsedBytes(snap, l);
        h << "<tr class=\"lun\" data-lun=\"" << l.lun << "\"><td>" << l.lun << "</td><td>" << bytesText(l.sizeBytes)
          << "</td><td>" << (used < 0 ? std::string("-") : bytesText(uint64_t(used))) << "</td></tr>";
    }
    h << "</table>";
    const bool rebuilding = (snap.statusBits & 0x200) != 0;
    h << "<h2>Relayout</h2><p id=\"relayout\" data-running=\"" << (rebuilding ? 1 : 0) << "\">"
      << (rebuilding ? "Relayout running, " + std::to_string(snap.zonesInDanger) + " Zones still without full redundancy"
                     : std::string("No relayout running"))
      << "</p>";
    h << "<h2>Recent events</h2><ul id=\"events\">";
    size_t first = events.size() > 10 ? events.size() - 10 : 0;
    for (size_t i = events.size(); i > first; --i) h << "<li>" << escape(events[i - 1]) << "</li>";
    if (!eventError.empty()) h << "<li>" << escape(eventError) << "</li>";
    h << "</ul></body></html>";
    return h.str();
}

int serveStatusPage(const std::string& portal, const std::string& listen) {
    std::string host = listen, port = "8080";
    if (size_t colon = listen.rfind(':'); colon != std::string::npos) {
        host = listen.substr(0, colon);
        port = listen.substr(colon + 1);
    }
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(std::stoi(port)));
    if (inet_pton(AF_INET, host.c_str(), &a.sin_addr) != 1) {
        std::fprintf(stderr, "esactl: bad listen address %s\n", listen.c_str());
        return 1;
    }
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(fd, 8) != 0) {
        std::fprintf(stderr, "esactl: cannot listen on %s\n", listen.c_str());
        return 1;
    }
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    std::printf("esactl: status page on http://%s:%u/\n", host.c_str(), unsigned(ntohs(a.sin_port)));
    std::fflush(stdout);
    for (;;) {
        int c = ::accept(fd, nullptr, nullptr);
        if (c < 0) continue;
        char buf[2048];
        ssize_t n = ::recv(c, buf, sizeof buf - 1, 0);
        std::string req(buf, n > 0 ? size_t(n) : 0);
        std::string path = "/";
        if (size_t sp = req.find(' '); sp != std::string::npos) path = req.substr(sp + 1, req.find(' ', sp + 1) - sp - 1);
        std::string body, type = "text/html; charset=utf-8", status = "200 OK";
        if (path == "/api/status") {
            MgmtClient client;
            Snapshot snap;
            std::string error;
            bool refused = false;
            type = "application/json";
            if (!client.connect(portal)) {
                status = "503 Service Unavailable";
                body = nlohmann::json{{"error", client.lastError()}}.dump();
            } else if (!readSnapshot(client, snap, error, refused)) {
                status = "502 Bad Gateway";
                body = nlohmann::json{{"error", error}}.dump();
            } else {
                body = nlohmann::json{{"status", statusJson(snap)}, {"slots", slotsJson(snap)},
                                      {"capacity", capacityJson(snap)}, {"luns", lunsJson(snap)}}
                           .dump();
            }
        } else if (path == "/" || path == "/index.html") {
            body = renderStatusPage(portal, "");
        } else {
            status = "404 Not Found";
            body = "not found\n";
            type = "text/plain";
        }
        std::string head = "HTTP/1.1 " + status + "\r\nContent-Type: " + type + "\r\nContent-Length: " +
                           std::to_string(body.size()) + "\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n";
        std::string all = head + body;
        size_t sent = 0;
        while (sent < all.size()) {
            ssize_t w = ::send(c, all.data() + sent, all.size() - sent, MSG_NOSIGNAL);
            if (w <= 0) break;
            sent += size_t(w);
        }
        ::close(c);
    }
}

}  // namespace esactl
