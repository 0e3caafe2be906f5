#include "util/Assert.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <sstream>

#include "platform/board/Board.h"
#include "platform/board/BoardServices.h"
#include "platform/rtos/BoardClock.h"
#include "platform/rtos/Rtos.h"
#include "util/BuildInfo.h"
#include "util/DebugClass.h"
#include "util/Diagnostics.h"
#include "util/LockObjectBase.h"
#include "util/PrintHelpers.h"

void (*AssertionHooks::flushAllDisksBypassQueue)() = nullptr;
void (*AssertionHooks::printGMTOffset)(std::string& out) = nullptr;

bool InLabMode() {
    static int cached = -1;
    if (cached < 0) cached = boardSyscall(BoardSyscall::ReadLabUnitFlag) > 0 ? 1 : 0;
    return cached == 1;
}

namespace {

const std::string kStars(63, '*');

std::string localTime(const char* format) {
    timespec ts = BoardClock::GetInstance().realtime();
    time_t s = ts.tv_sec;
    struct tm tmv;
    localtime_r(&s, &tmv);
    char buf[64];
    strftime(buf, sizeof buf, format, &tmv);
    return buf;
}

void printBanner(const std::string& message, const char* file, int line, const char* function) {
    std::string gmt = localTime("%z");
    if (AssertionHooks::printGMTOffset) AssertionHooks::printGMTOffset(gmt);
    char block[2048];
    std::snprintf(block, sizeof block,
                  "  Failed at:\n  File       : %s\n  Line number: %d\n  Function   : %s\n  Thread     : 0x%8.8lx (%s)\n"
                  "  ESA version: %s\n  Build date : %s\n  Uptime     : %s\n  Time now   : %s  TimeZone   : %s\n",
                  file, line, function, (unsigned long)taskNumericId(taskIdSelf()), taskName(taskIdSelf()).c_str(),
                  BuildInfo::version().c_str(), BuildInfo::buildDate().c_str(),
                  TimeDumper(BoardClock::GetInstance().microseconds(), 4).str().c_str(),
                  localTime("%a %b %d %H:%M:%S %Y").c_str(), gmt.c_str());
    std::cout << kStars << "\n" << kStars << "\n" << message << block << "\n" << kStars << "\n" << kStars << "\n";
    std::cout.flush();
}

[[noreturn]] void failAssertion(const std::string& message, const std::string& reasonText, const char* file, int line,
                                const char* function) {
    // 1. The failing thread becomes the most urgent.
    taskPrioritySet(nullptr, 90);
    // 2. Halt the others.
    DebugClass::GetInstance()->HaltAllTasks(std::cout);
    // 3. A failure met while diagnostics are being generated is a secondary one.
    bool secondary = DiagnosticsManager::inDiagnostics();
    // 4. Nothing below may block on a lock that a halted thread holds.
    LockObjectBase::bypass = true;
    // 5, 6.
    printBanner(message, file, line, function);
    std::cout << "\nIf there is no output beyond this point, try doing 'rtpc <rtpId>'\n"
              << "If this doesn't complete, you will need to see what threads are blocking\nthis thread using 'tw "
              << taskName(taskIdSelf()) << "' and then use 'tr <threadName>' to resume that thread\n\n";
    std::cout.flush();
    // 7. No operating-system event logging to stop here.
    // 8. The reboot reason.
    std::string reason = assertionRebootReason(reasonText);
    boardSyscall(BoardSyscall::WriteRebootReason, intptr_t(reason.c_str()));
    // 9. Diagnostics (a secondary failure finds them running and stops there).
    DiagnosticsManager::GenerateDiagnostics(std::cout);
    // 10.
    printBanner(message, file, line, function);
    // 11.
    if (!secondary) {
        if (AssertionHooks::flushAllDisksBypassQueue) AssertionHooks::flushAllDisksBypassQueue();
    } else {
        std::string hundred(100, '*');
        std::cout << hundred << "\n" << hundred << "\n"
                  << "*** Secondary ASSERT failure generating diags - scroll up to start of diags see original failure. ***\n"
                  << hundred << "\n" << hundred << "\n";
    }
    std::cout.flush();
    // 12. The platform's fatal-error policy restarts the appliance.
    Board::GetInstance().restart("assertion");
}

}  // namespace

std::string assertionRebootReason(const std::string& assertText) {
    std::string reason = localTime("%Y%m%d %H:%M ");
    reason.resize(15, ' ');
    reason += assertText.substr(0, 241);
    reason.resize(256, ' ');
    return reason;
}

void reportUnaryAssertion(const char* file, int line, const char* function, const char* expression) {
    char msg[1024], reason[512];
    std::snprintf(msg, sizeof msg, "Assertion failed: %s\n", expression);
    std::snprintf(reason, sizeof reason, "Assert@%s:%d '%s'", file, line, expression);
    failAssertion(msg, reason, file, line, function);
}

void reportPtrAssertion(const char* file, int line, const char* function, const char* leftText, uint32_t leftValue,
                        const char* asserted, const char* op, const char* rightText, uint32_t rightValue) {
    char msg[1024], reason[512];
    std::snprintf(msg, sizeof msg, "Assertion failed: %s (0x%8.8lx) %s %s %s (0x%8.8lx)\n", leftText,
                  (unsigned long)leftValue, asserted, op, rightText, (unsigned long)rightValue);
    std::snprintf(reason, sizeof reason, "Assert@%s:%d 0x%8.8lx %s 0x%8.8lx", file, line, (unsigned long)leftValue, op,
                  (unsigned long)rightValue);
    failAssertion(msg, reason, file, line, function);
}

void reportBinaryAssertion(const char* file, int line, const char* function, const char* leftText, uint64_t leftValue,
                           const char* asserted, const char* op, const char* rightText, uint64_t rightValue) {
    char msg[1024], reason[512];
    std::snprintf(msg, sizeof msg, "Assertion failed: %s (%llu) %s %s %s (%llu)\n", leftText,
                  (unsigned long long)leftValue, asserted, op, rightText, (unsigned long long)rightValue);
    std::snprintf(reason, sizeof reason, "Assert@%s:%d %llu %s %llu", file, line, (unsigned long long)leftValue, op,
                  (unsigned long long)rightValue);
    failAssertion(msg, reason, file, line, function);
}
