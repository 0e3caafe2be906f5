#include "management/ConsoleServer.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <ostream>
#include <streambuf>

#include "platform/board/Board.h"
#include "platform/rtos/Rtos.h"
#include "util/ConsoleCommand.h"
#include "util/Trace.h"

namespace {

// Streams a command's output straight to the client's socket.
class SocketBuffer : public std::streambuf {
public:
    explicit SocketBuffer(int fd) : mFd(fd) { setp(mBuf, mBuf + sizeof mBuf); }
    ~SocketBuffer() override { sync(); }

protected:
    int overflow(int c) override {
        if (sync() != 0) return traits_type::eof();
        if (c != traits_type::eof()) {
            *pptr() = char(c);
            pbump(1);
        }
        return c == traits_type::eof() ? 0 : c;
    }
    int sync() override {
        const char* p = pbase();
        size_t left = size_t(pptr() - pbase());
        while (left > 0) {
            ssize_t n = ::send(mFd, p, left, MSG_NOSIGNAL);
            if (n <= 0) {
                setp(mBuf, mBuf + sizeof mBuf);
                return -1;
            }
            p += n;
            left -= size_t(n);
        }
        setp(mBuf, mBuf + sizeof mBuf);
        return 0;
    }

private:
    int mFd;
    char mBuf[8192];
};

bool readLine(int fd, std::string& pending, std::string& line) {
    for (;;) {
        size_t nl = pending.find('\n');
        if (nl != std::string::npos) {
            line = pending.substr(0, nl);
            pending.erase(0, nl + 1);
            return true;
        }
        char buf[1024];
        ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n <= 0) {
            if (pending.empty()) return false;
            line.swap(pending);
            pending.clear();
            return true;
        }
        pending.append(buf, size_t(n));
    }
}

}  // namespace

ConsoleServer* ConsoleServer::GetInstance() {
    static ConsoleServer instance;
    return &instance;
}

void ConsoleServer::serveConnection(int fd) {
    std::string pending, line;
    while (readLine(fd, pending, line)) {
        int rc;
        {
            SocketBuffer buffer(fd);
            std::ostream out(&buffer);
            bool blank = line.find_first_not_of(" \t\r") == std::string::npos;
            rc = blank ? 0 : ConsoleCommand::ExecuteLine(line, out);
            out.flush();
        }
        std::string end = std::string(1, '\0') + kEndOfReply + std::to_string(rc) + "\n";
        if (::send(fd, end.data(), end.size(), MSG_NOSIGNAL) <= 0) break;
    }
    ::close(fd);
}

void ConsoleServer::listenLoop(int listenFd) {
    for (;;) {
        int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR) continue;
            taskDelay(1);
            continue;
        }
        taskSpawn("tDebugConn", 90, [fd] { serveConnection(fd); });
    }
}

void ConsoleServer::start(bool standardInput) {
    if (mStarted) return;
    mStarted = true;
    std::string path = Board::GetInstance().path(kSocketName).string();
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (fd < 0 || path.size() >= sizeof addr.sun_path) {
        ESA_CONSOLE("Console: cannot open socket " << path);
    } else {
        std::strcpy(addr.sun_path, path.c_str());
        ::unlink(path.c_str());
        if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, 16) != 0) {
            ESA_CONSOLE("Console: cannot listen on " << path << ": " << std::strerror(errno));
            ::close(fd);
        } else {
            taskSpawn("tDebug", 90, [this, fd] { listenLoop(fd); });
            ESA_CONSOLE("Console listening on " << path);
        }
    }
    if (standardInput) taskSpawn("tDebugStdin", 90, [this] { runOnStandardInput(); });
}

void ConsoleServer::runOnStandardInput() {
    std::string line;
    std::cout << "-> " << std::flush;
    while (std::getline(std::cin, line)) {
        if (line.find_first_not_of(" \t\r") != std::string::npos) {
            int rc = ConsoleCommand::ExecuteLine(line, std::cout);
            std::cout << "value = " << rc << "\n";
        }
        std::cout << "-> " << std::flush;
    }
}
