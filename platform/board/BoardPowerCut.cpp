#include "platform/board/BoardPowerCut.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <string>

#include "platform/board/Board.h"

namespace {

std::atomic<bool> gCut{false};
static_assert(std::atomic<bool>::is_always_lock_free, "read and set from a signal handler");
int gLogFd = -1;  // board.log, opened before the handler is installed

void cutHandler(int) {
    gCut.store(true);
    static const char line[] = "power cut by the board\n";
    if (gLogFd >= 0) (void)!::write(gLogFd, line, sizeof line - 1);
    ::kill(::getpid(), SIGKILL);
    for (;;) ::pause();
}

}  // namespace

void installBoardPowerCut() {
    Board& board = Board::GetInstance();
    gLogFd = ::open(board.path("board.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    std::ofstream(board.path("esa.pid")) << ::getpid() << "\n";
    struct sigaction cut {};
    cut.sa_handler = cutHandler;
    sigfillset(&cut.sa_mask);
    ::sigaction(SIGPWR, &cut, nullptr);
}

bool boardPowerIsCut() { return gCut.load(std::memory_order_relaxed); }

void waitForPowerToGo() {
    for (;;) ::pause();
}

pid_t boardEsaPid(const std::filesystem::path& dir) {
    std::ifstream in(dir / "esa.pid");
    long pid = -1;
    if (!(in >> pid) || pid <= 0) return -1;
    // The pid may have been reused since: it must still be an esa, and not a
    // zombie waiting for its parent.
    char exe[4096];
    std::string link = "/proc/" + std::to_string(pid) + "/exe";
    ssize_t n = ::readlink(link.c_str(), exe, sizeof exe - 1);
    if (n <= 0) return -1;
    exe[n] = 0;
    std::string path(exe);
    if (path.size() >= 10 && path.compare(path.size() - 10, 10, " (deleted)") == 0) path.resize(path.size() - 10);
    if (std::filesystem::path(path).filename() != "esa") return -1;
    std::ifstream environ("/proc/" + std::to_string(pid) + "/environ", std::ios::binary);
    std::string all((std::istreambuf_iterator<char>(environ)), std::istreambuf_iterator<char>());
    std::error_code ec;
    const auto want = std::filesystem::weakly_canonical(dir, ec);
    for (size_t at = 0; at < all.size();) {
        size_t end = all.find('\0', at);
        if (end == std::string::npos) end = all.size();
        std::string entry = all.substr(at, end - at);
        if (entry.rfind("ESA_BOARD=", 0) == 0) {
            std::string cwdLink = "/proc/" + std::to_string(pid) + "/cwd";
            std::filesystem::path board = entry.substr(10);
            if (board.is_relative()) board = std::filesystem::read_symlink(cwdLink, ec) / board;
            return std::filesystem::weakly_canonical(board, ec) == want ? pid_t(pid) : -1;
        }
        at = end + 1;
    }
    // No ESA_BOARD: the default board ./esa-board of its working directory.
    std::filesystem::path cwd = std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/cwd", ec);
    return std::filesystem::weakly_canonical(cwd / "esa-board", ec) == want ? pid_t(pid) : -1;
}
