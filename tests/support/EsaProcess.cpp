#include "tests/support/EsaProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

std::string esaBinary(const std::string& name) { return std::string(ESA_BIN_DIR) + "/" + name; }

ConsoleResult runConsoleCommand(const std::string& boardDir, const std::string& line) {
    ConsoleResult result;
    result.rc = -1000;
    std::string path = boardDir + "/console.sock";
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return result;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return result;
    }
    std::string request = line + "\n";
    (void)!::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    std::string all;
    char buf[8192];
    for (;;) {
        ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n <= 0) break;
        all.append(buf, size_t(n));
        size_t nul = all.find('\0');
        if (nul != std::string::npos && all.find('\n', nul) != std::string::npos) break;
    }
    ::close(fd);
    size_t nul = all.find('\0');
    if (nul == std::string::npos) {
        result.output = all;
        return result;
    }
    result.output = all.substr(0, nul);
    std::string frame = all.substr(nul + 1);
    if (frame.rfind("ESA-RC ", 0) == 0) result.rc = std::atoi(frame.c_str() + 7);
    return result;
}

EsaProcess::EsaProcess(const std::string& boardDir, std::vector<std::string> args,
                       std::map<std::string, std::string> env)
    : mBoard(boardDir) {
    char tmpl[] = "/tmp/esa-output-XXXXXX";
    int tmp = ::mkstemp(tmpl);
    if (tmp >= 0) ::close(tmp);
    mOutputFile = tmpl;
    std::string binary = esaBinary("esa");
    if (!env.count("ESA_CLOCK")) env["ESA_CLOCK"] = "accel:50";
    env["ESA_BOARD"] = boardDir;
    mPid = ::fork();
    if (mPid == 0) {
        int out = ::open(mOutputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        int in = ::open("/dev/null", O_RDONLY);
        ::dup2(in, 0);
        ::dup2(out, 1);
        ::dup2(out, 2);
        for (auto& [k, v] : env) ::setenv(k.c_str(), v.c_str(), 1);
        std::vector<char*> argv;
        argv.push_back(binary.data());
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        ::execv(binary.c_str(), argv.data());
        ::_exit(127);
    }
}

EsaProcess::~EsaProcess() {
    if (running()) kill9();
    if (!std::getenv("ESA_KEEP_TEST_BOARDS")) ::unlink(mOutputFile.c_str());
}

std::string EsaProcess::output() const {
    std::ifstream in(mOutputFile, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool EsaProcess::running() {
    if (mExited) return false;
    int status = 0;
    pid_t r = ::waitpid(mPid, &status, WNOHANG);
    if (r == mPid) {
        mExited = true;
        mStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return false;
    }
    return true;
}

bool EsaProcess::waitForOutput(const std::string& text, std::chrono::seconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (output().find(text) != std::string::npos) return true;
        if (!running()) return output().find(text) != std::string::npos;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

bool EsaProcess::waitForConsole(std::chrono::seconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (!running()) return false;
        if (runConsoleCommand(mBoard, "").rc != -1000) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

ConsoleResult EsaProcess::console(const std::string& line) { return runConsoleCommand(mBoard, line); }

int EsaProcess::wait(std::chrono::seconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (running()) {
        if (std::chrono::steady_clock::now() >= deadline) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return mStatus;
}

void EsaProcess::kill9() {
    if (!running()) return;
    ::kill(mPid, SIGKILL);
    wait();
}
