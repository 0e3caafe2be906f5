#include "system/SystemSignalHandler.h"

#include <unistd.h>

#include <csignal>
#include <cstring>

#include "platform/board/Board.h"
#include "platform/board/BoardServices.h"
#include "util/Assert.h"

namespace {

const struct {
    int number;
    const char* name;
} kNames[] = {{SIGHUP, "SIGHUP"},   {SIGINT, "SIGINT"},   {SIGQUIT, "SIGQUIT"}, {SIGILL, "SIGILL"},
              {SIGTRAP, "SIGTRAP"}, {SIGABRT, "SIGABRT"}, {SIGBUS, "SIGBUS"},   {SIGFPE, "SIGFPE"},
              {SIGUSR1, "SIGUSR1"}, {SIGSEGV, "SIGSEGV"}, {SIGUSR2, "SIGUSR2"}, {SIGPIPE, "SIGPIPE"},
              {SIGALRM, "SIGALRM"}, {SIGTERM, "SIGTERM"}, {SIGSYS, "SIGSYS"},   {SIGXCPU, "SIGXCPU"},
              {SIGXFSZ, "SIGXFSZ"}};

void faultHandler(int sig) {
    char line[64];
    std::strcpy(line, "Signal = ");
    std::strcat(line, signalName(sig));
    std::strcat(line, "\n");
    (void)!::write(1, line, std::strlen(line));
    reportBinaryAssertion(__FILE__, __LINE__, __func__, "signal", uint64_t(sig), "asserted to be ", "==", "0", 0);
}

void powerSwitchHandler(int) {
    Board::GetInstance().log("power switch");
    diagLogFlush();
    ::_exit(0);
}

}  // namespace

const char* signalName(int signal) {
    for (auto& n : kNames)
        if (n.number == signal) return n.name;
    return "UNKNOWN";
}

void installSystemSignalHandler() {
    struct sigaction fault {};
    fault.sa_handler = faultHandler;
    fault.sa_flags = SA_NODEFER;
    for (int sig : {SIGQUIT, SIGILL, SIGTRAP, SIGABRT, SIGBUS, SIGFPE, SIGUSR1, SIGSEGV, SIGUSR2, SIGALRM, SIGSYS,
                    SIGXCPU, SIGXFSZ})
        ::sigaction(sig, &fault, nullptr);
    struct sigaction power {};
    power.sa_handler = powerSwitchHandler;
    for (int sig : {SIGTERM, SIGINT, SIGHUP}) ::sigaction(sig, &power, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
}
