// esa-console DIR [COMMAND ARGS...]: runs one console command on the appliance
// whose board directory is DIR and exits with the command's return code, or,
// without a command, opens an interactive console.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

namespace {

constexpr const char kEndOfReply[] = "ESA-RC ";

int connectTo(const std::string& dir) {
    std::string path = dir + "/console.sock";
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) return -1;
    std::strcpy(addr.sun_path, path.c_str());
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Sends one command line and copies its output to stdout; returns the
// command's return code, or -1000 when the connection broke.
int runCommand(int fd, const std::string& line) {
    std::string request = line + "\n";
    if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) != ssize_t(request.size())) return -1000;
    std::string pending;
    char buf[8192];
    for (;;) {
        size_t nul = pending.find('\0');
        if (nul != std::string::npos) {
            std::fwrite(pending.data(), 1, nul, stdout);
            size_t nl = pending.find('\n', nul);
            while (nl == std::string::npos) {
                ssize_t n = ::recv(fd, buf, sizeof buf, 0);
                if (n <= 0) return -1000;
                pending.append(buf, size_t(n));
                nl = pending.find('\n', nul);
            }
            std::string frame = pending.substr(nul + 1, nl - nul - 1);
            std::fflush(stdout);
            if (frame.rfind(kEndOfReply, 0) != 0) return -1000;
            return std::atoi(frame.c_str() + sizeof kEndOfReply - 1);
        }
        std::fwrite(pending.data(), 1, pending.size(), stdout);
        pending.clear();
        ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n <= 0) {
            std::fflush(stdout);
            return -1000;
        }
        pending.append(buf, size_t(n));
    }
}

std::string quoteWord(const std::string& w) {
    if (w.find_first_of(" \t") == std::string::npos && !w.empty()) return w;
    return "\"" + w + "\"";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: esa-console DIR [COMMAND ARGS...]\n");
        return 2;
    }
    int fd = connectTo(argv[1]);
    if (fd < 0) {
        std::fprintf(stderr, "esa-console: cannot reach the console of %s (is esa running?)\n", argv[1]);
        return 2;
    }
    if (argc > 2) {
        std::string line;
        for (int i = 2; i < argc; ++i) {
            if (i > 2) line.push_back(' ');
            line.append(quoteWord(argv[i]));
        }
        int rc = runCommand(fd, line);
        ::close(fd);
        if (rc == -1000) {
            std::fprintf(stderr, "esa-console: connection closed before the command finished\n");
            return 3;
        }
        return rc & 0xff;
    }
    bool tty = ::isatty(0);
    std::string line;
    if (tty) std::cout << "esa> " << std::flush;
    int last = 0;
    while (std::getline(std::cin, line)) {
        last = runCommand(fd, line);
        if (last == -1000) {
            std::fprintf(stderr, "esa-console: connection closed\n");
            return 3;
        }
        if (tty) std::cout << "esa> " << std::flush;
    }
    ::close(fd);
    return last & 0xff;
}
