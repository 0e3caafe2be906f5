#include "platform/board/BoardServices.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "platform/board/Board.h"
#include "platform/drive/SimDriveController.h"
#include "platform/target/TargetLunTable.h"
#include "platform/rtos/BoardClock.h"

namespace {

std::string hex(uintmax_t v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%jx", v);
    return buf;
}

enum class Device { EsaRegister, NetworkInfo, DiagLog, DiagLog0 };

std::mutex gDeviceLock;
std::map<int, Device> gOpenDevices;
int gNextFd = 1000;

// ---- the diagnostics log device
struct DiagLog {
    std::mutex lock;
    bool started = false;
    int pipeRead = -1, pipeWrite = -1;
    int console = -1;  // the real console, saved before stdout is redirected
    int file = -1;
    std::atomic<bool> logOnly{false};
    std::atomic<uint64_t> bytesIn{0};
    std::atomic<uint64_t> bytesOut{0};
} gDiag;

void diagPump() {
    char buf[4096];
    for (;;) {
        ssize_t n = ::read(gDiag.pipeRead, buf, sizeof buf);
        if (n <= 0) return;
        if (gDiag.file >= 0) (void)!::write(gDiag.file, buf, size_t(n));
        if (!gDiag.logOnly && gDiag.console >= 0) (void)!::write(gDiag.console, buf, size_t(n));
        gDiag.bytesOut += uint64_t(n);
    }
}

void startDiagLog() {
    std::lock_guard<std::mutex> g(gDiag.lock);
    if (gDiag.started) return;
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return;
    gDiag.pipeRead = fds[0];
    gDiag.pipeWrite = fds[1];
    gDiag.console = ::fcntl(1, F_DUPFD_CLOEXEC, 3);
    gDiag.file = ::open(Board::GetInstance().path("diag.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    gDiag.started = true;
    std::thread(diagPump).detach();
}

int pmu(intptr_t op, intptr_t out) {
    auto cfg = Board::GetInstance().config();
    // "pmuFail": true makes every PMU read fail, as a PMU that does not answer.
    if (cfg.value("pmuFail", false) && op >= PmuOp::ReadState && op <= PmuOp::ReadVersions) return -1;
    switch (op) {
    case PmuOp::ReadState: {
        auto* r = reinterpret_cast<PmuStateRecord*>(out);
        std::memset(r, 0, sizeof *r);
        uint64_t secs = BoardClock::GetInstance().ticks() / BoardClock::kTicksPerSecond;
        r->uptimeMinutes = uint32_t(secs / 60);
        r->seconds = uint8_t(secs % 60);
        auto bat = cfg.value("battery", nlohmann::json::object());
        uint16_t flags = 1u << 1;  // DRAM valid
        if (bat.value("failed", false)) flags |= 1u << 0;
        if (bat.value("depleted", false)) flags |= 1u << 2;
        if (bat.value("acFailure", false)) flags |= 1u << 4;
        if (bat.value("powerSwitchShutdown", false)) flags |= 1u << 5;
        flags |= uint16_t(8u << 8);  // PMU state NORMAL
        r->stateFlags = flags;
        r->latestBatteryTime = bat.value("latestMinutesTenths", 0u);
        r->longestBatteryTime = bat.value("longestMinutesTenths", 0u);
        r->totalBatteryTime = bat.value("totalMinutesTenths", 0u);
        r->backupCycles = bat.value("backupCycles", 0);
        r->powerCycles = 1;
        return 0;
    }
    case PmuOp::ReadTemperatures: {
        auto* r = reinterpret_cast<PmuTemperatureRecord*>(out);
        std::memset(r, 0, sizeof *r);
        auto t = cfg.value("temperatures", nlohmann::json::object());
        auto slots = t.value("slots", std::vector<int>(8, 35));
        auto amb = t.value("ambient", std::vector<int>(2, 28));
        int max = 0, sum = 0;
        for (size_t i = 0; i < 8 && i < slots.size(); ++i) {
            r->slots[i] = uint8_t(slots[i]);
            max = std::max(max, slots[i]);
            sum += slots[i];
        }
        for (size_t i = 0; i < 2 && i < amb.size(); ++i) r->ambient[i] = uint8_t(amb[i]);
        r->maximum = uint8_t(max);
        r->average = uint8_t(sum / 8);
        r->fanSpeed = uint8_t(cfg.value("fanSpeed", 40));
        r->samplingPeriod = 60;
        return 0;
    }
    case PmuOp::ReadVersions: {
        auto* r = reinterpret_cast<PmuVersionRecord*>(out);
        auto v = cfg.value("pmuVersion", nlohmann::json::object());
        r->currentMajor = r->desiredMajor = uint8_t(v.value("major", 1));
        r->currentMinor = r->desiredMinor = uint8_t(v.value("minor", 2));
        r->currentBuild = r->desiredBuild = uint16_t(v.value("build", 300));
        return 0;
    }
    case PmuOp::PowerOff:
    case PmuOp::ShutDown:
        Board::GetInstance().log("power off");
        std::fflush(stdout);
        diagLogFlush();
        ::_exit(0);
    default:
        return 0;
    }
}

}  // namespace

int boardSyscall(unsigned number, intptr_t a0, intptr_t a1, intptr_t a2, intptr_t a3, intptr_t a4, intptr_t a5,
                 intptr_t a6, intptr_t a7) {
    Board& board = Board::GetInstance();
    board.log("syscall " + hex(number) + " " + hex(uintptr_t(a0)) + " " + hex(uintptr_t(a1)));
    switch (number) {
    case BoardSyscall::Restart:
        board.restart("syscall");
    case BoardSyscall::WriteRebootReason:
        board.setLastRebootReason(std::string(reinterpret_cast<const char*>(a0), strnlen(reinterpret_cast<const char*>(a0), 256)));
        return 0;
    case BoardSyscall::ReadRebootReason: {
        std::string r = board.lastRebootReason();
        size_t cap = a1 > 0 ? size_t(a1) : 256;
        std::memset(reinterpret_cast<char*>(a0), 0, cap);
        std::memcpy(reinterpret_cast<char*>(a0), r.data(), std::min(cap - 1, r.size()));
        return 0;
    }
    case BoardSyscall::ReadSerialNumber: {
        std::string s = board.config().value("serialNumber", std::string("ESA0000000001"));
        std::memset(reinterpret_cast<char*>(a0), 0, 256);
        std::memcpy(reinterpret_cast<char*>(a0), s.data(), std::min<size_t>(255, s.size()));
        return 0;
    }
    case BoardSyscall::BootedOnBattery:
        return board.config().value("battery", nlohmann::json::object()).value("bootedOnBattery", false) ? 1 : 0;
    case BoardSyscall::ReadPlatformId:
        return board.config().value("platformId", 4);
    case BoardSyscall::ReadLabUnitFlag:
        return board.config().value("labUnit", false) ? 1 : 0;
    case BoardSyscall::Pmu:
        return pmu(a0, a1);
    case BoardSyscall::SetMaxLunCount:
    case BoardSyscall::RtpEnableState:
    case BoardSyscall::SetLunLastLba:
        // The LUN state the target driver answers hosts from.
        return TargetLunTable::GetInstance().applyBoardCall(number, a0, a1, a2);
    case BoardSyscall::SlotPower:
        return driveSlotPowerSyscall(reinterpret_cast<SlotPowerRecord*>(a0));
    default:
        // Transport, LUN, event logging and slot power calls: recorded in the
        // board log, where the target and drive stand-ins pick them up.
        (void)a2; (void)a3; (void)a4; (void)a5; (void)a6; (void)a7;
        return 0;
    }
}

int boardOpen(const char* device, int) {
    Device d;
    std::string name = device;
    if (name == "/ESA_REGISTER") d = Device::EsaRegister;
    else if (name == "/networkinfo") d = Device::NetworkInfo;
    else if (name == "diagLog" || name == "/diagLog") d = Device::DiagLog;
    else if (name == "diagLog0" || name == "/diagLog0") d = Device::DiagLog0;
    else return -1;
    Board& board = Board::GetInstance();
    if (d == Device::EsaRegister && board.config().value("noEsaRegister", false)) {
        board.log("open " + name + " failed");
        return -1;
    }
    if (d == Device::DiagLog) startDiagLog();
    std::lock_guard<std::mutex> g(gDeviceLock);
    int fd = gNextFd++;
    gOpenDevices[fd] = d;
    board.log("open " + name + " fd " + std::to_string(fd));
    return fd;
}

int boardClose(int fd) {
    std::lock_guard<std::mutex> g(gDeviceLock);
    return gOpenDevices.erase(fd) ? 0 : -1;
}

int diagLogDescriptor(int fd) {
    std::lock_guard<std::mutex> g(gDeviceLock);
    auto it = gOpenDevices.find(fd);
    if (it == gOpenDevices.end() || it->second != Device::DiagLog) return -1;
    return gDiag.pipeWrite;
}

void diagLogFlush() {
    if (!gDiag.started) return;
    // Wait (briefly) until the pump has copied out everything in the pipe.
    for (int i = 0; i < 200; ++i) {
        int pending = 0;
        if (::ioctl(gDiag.pipeRead, FIONREAD, &pending) != 0 || pending == 0) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

int boardIoctl(int fd, unsigned long request, intptr_t arg) {
    Device d;
    {
        std::lock_guard<std::mutex> g(gDeviceLock);
        auto it = gOpenDevices.find(fd);
        if (it == gOpenDevices.end()) return -1;
        d = it->second;
    }
    Board& board = Board::GetInstance();
    if (!(d == Device::EsaRegister && request == EsaRegisterIoctl::Timebase))
        board.log("ioctl " + hex(request) + " " + hex(uintptr_t(arg)));
    switch (d) {
    case Device::EsaRegister:
        switch (request) {
        case EsaRegisterIoctl::DiskClearButton: {
            // "clearButton": 0, 1, or "flicker" (changes at every read).
            auto v = board.config().value("clearButton", nlohmann::json(0));
            int value = 0;
            if (v.is_string() && v.get<std::string>() == "flicker") {
                static std::atomic<int> flip{0};
                value = (flip++ & 1);
            } else if (v.is_number()) {
                value = v.get<int>();
            } else if (v.is_boolean()) {
                value = v.get<bool>() ? 1 : 0;
            }
            *reinterpret_cast<int*>(arg) = value;
            return 0;
        }
        case EsaRegisterIoctl::LedBar:
            board.setLedBar(uint32_t(arg));
            return 0;
        case EsaRegisterIoctl::SlotLeds:  // a pointer to the word of the phase shown now
            if (!arg) return -1;
            board.setSlotLeds(*reinterpret_cast<const uint32_t*>(arg));
            return 0;
        case EsaRegisterIoctl::PowerLed:  // a pointer to the colour byte
            if (!arg) return -1;
            board.setPowerLed(*reinterpret_cast<const uint8_t*>(arg));
            return 0;
        case EsaRegisterIoctl::CapacityMeter:
            board.setCapacityMeter(int(arg));
            return 0;
        case EsaRegisterIoctl::CapacityMeterOff:
            board.setCapacityMeter(-1);
            return 0;
        case EsaRegisterIoctl::Timebase:
            if (arg) *reinterpret_cast<uint64_t*>(arg) = BoardClock::GetInstance().microseconds();
            return 0;
        case EsaRegisterIoctl::PowerSwitch:
            if (arg) *reinterpret_cast<int*>(arg) = board.config().value("powerSwitch", 1);
            return 0;
        default:
            return 0;  // boot count, battery, flash image: recorded in the log
        }
    case Device::NetworkInfo: {
        auto* rec = reinterpret_cast<NetworkInfoRecord*>(arg);
        if (request == NetworkInfoIoctl::Read) {
            auto n = board.config().value("network", nlohmann::json::object());
            rec->useDefault = n.value("useDefault", 1u);
            rec->address = n.value("address", 0xa9fe0100u);
            rec->subnet = n.value("subnet", 0xffff0000u);
            return 0;
        }
        if (request == NetworkInfoIoctl::WriteNow || request == NetworkInfoIoctl::WriteAtStart) {
            board.updateConfig([rec](nlohmann::json& j) {
                j["network"] = {{"useDefault", rec->useDefault}, {"address", rec->address}, {"subnet", rec->subnet}};
            });
            return 0;
        }
        if (request == NetworkInfoIoctl::EsxMode) return 0;
        return -1;
    }
    case Device::DiagLog:
        if (request == DiagLogIoctl::SetMode) {
            gDiag.logOnly = (arg == intptr_t(DiagLogIoctl::LogOnly));
            return 0;
        }
        return -1;
    case Device::DiagLog0:
        if (request == DiagLogIoctl::Flush) {
            diagLogFlush();
            return 0;
        }
        return -1;
    }
    return -1;
}
