#include "platform/board/Board.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "platform/board/BoardServices.h"
#include "platform/rtos/BoardClock.h"

namespace fs = std::filesystem;

Board& Board::GetInstance() {
    static Board instance;
    return instance;
}

void Board::createDefault(const fs::path& dir) {
    fs::create_directories(dir / "slots");
    fs::create_directories(dir / "nvram");
    fs::create_directories(dir / "rfa");
    if (fs::exists(dir / "board.json")) return;
    nlohmann::json j = {
        {"serialNumber", "ESA0000000001"},
        {"platformId", 4},
        {"model", "ESA-8 simulated board"},
        {"labUnit", false},
        {"clearButton", 0},
        {"powerSwitch", 1},
        {"fanSpeed", 40},
        {"temperatures", {{"slots", {35, 35, 35, 35, 35, 35, 35, 35}}, {"ambient", {28, 28}}}},
        {"battery", {{"failed", false}, {"depleted", false}, {"bootedOnBattery", false}, {"acFailure", false},
                     {"powerSwitchShutdown", false}}},
        {"pmuVersion", {{"major", 1}, {"minor", 2}, {"build", 300}}},
        {"network", {{"useDefault", 1}, {"address", 0xa9fe0100u}, {"subnet", 0xffff0000u}}},
    };
    std::ofstream(dir / "board.json") << j.dump(2) << "\n";
}

void Board::open() {
    const char* env = std::getenv("ESA_BOARD");
    open(env && *env ? fs::path(env) : fs::path("./esa-board"));
}

void Board::open(const fs::path& dir) {
    std::lock_guard<std::mutex> g(mLock);
    if (mOpen) return;
    createDefault(dir);
    mDir = fs::absolute(dir);
    mLogFd = ::open((mDir / "board.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    mOpen = true;
}

nlohmann::json Board::config() {
    std::ifstream in(mDir / "board.json");
    nlohmann::json j = nlohmann::json::parse(in, nullptr, false);
    if (j.is_discarded() || !j.is_object()) return nlohmann::json::object();
    return j;
}

void Board::updateConfig(const std::function<void(nlohmann::json&)>& edit) {
    std::lock_guard<std::mutex> g(mLock);
    nlohmann::json j = config();
    edit(j);
    fs::path tmp = mDir / "board.json.tmp";
    std::ofstream(tmp) << j.dump(2) << "\n";
    fs::rename(tmp, mDir / "board.json");
}

void Board::log(const std::string& line) {
    if (mLogFd < 0) return;
    std::string text = std::to_string(BoardClock::GetInstance().ticks()) + " " + line + "\n";
    // One write per line with O_APPEND keeps lines whole across threads.
    ssize_t rc = ::write(mLogFd, text.data(), text.size());
    (void)rc;
}

bool Board::isBatteryBacked(const std::string& name) {
    return name == "/nvramDRAMSim" || name == "/nvramPSRAM" || name == "/SHJ1";
}

void* Board::openRegion(const std::string& name, size_t size, size_t* actualSize) {
    std::lock_guard<std::mutex> g(mLock);
    auto it = mRegions.find(name);
    if (it != mRegions.end()) {
        if (actualSize) *actualSize = it->second.size;
        return it->second.base;
    }
    void* base = MAP_FAILED;
    if (isBatteryBacked(name) && mOpen) {
        fs::path file = mDir / "nvram" / name.substr(1);
        int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) return nullptr;
        off_t current = ::lseek(fd, 0, SEEK_END);
        if (current < off_t(size) && ::ftruncate(fd, off_t(size)) != 0) {
            ::close(fd);
            return nullptr;
        }
        base = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        ::close(fd);
    } else {
        base = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    }
    if (base == MAP_FAILED) return nullptr;
    mRegions[name] = Region{base, size};
    if (actualSize) *actualSize = size;
    return base;
}

void Board::writeLeds() {
    if (!mOpen) return;
    nlohmann::json j = ledStateLocked();
    fs::path tmp = mDir / "leds.json.tmp";
    std::ofstream(tmp) << j.dump() << "\n";
    std::error_code ec;
    fs::rename(tmp, mDir / "leds.json", ec);
}

void Board::setLedBar(uint32_t pattern) {
    std::lock_guard<std::mutex> g(mLock);
    mLedBar = pattern;
    writeLeds();
}

uint32_t Board::ledBar() {
    std::lock_guard<std::mutex> g(mLock);
    return mLedBar;
}

void Board::setSlotLeds(uint32_t bits) {
    std::lock_guard<std::mutex> g(mLock);
    mSlotLeds = bits;
    ++mSlotWrites;
    writeLeds();
}

void Board::setPowerLed(uint8_t colour) {
    std::lock_guard<std::mutex> g(mLock);
    mPowerLed = colour;
    writeLeds();
}

void Board::setCapacityMeter(int percent) {
    std::lock_guard<std::mutex> g(mLock);
    mCapacityMeter = percent;
    writeLeds();
}

nlohmann::json Board::ledState() {
    std::lock_guard<std::mutex> g(mLock);
    return ledStateLocked();
}

// The raw words as the system wrote them, and beside them what a person
// standing in front of the box sees now: each slot's light (2 bits a slot,
// slot n at bits 2n and 2n+1: 0 yellow, 1 red, 2 green, 3 off). A flashing
// light shows its two colours in turn, one write each.
nlohmann::json Board::ledStateLocked() const {
    static const char* const kColour[4] = {"yellow", "red", "green", "off"};
    nlohmann::json slots = nlohmann::json::array();
    for (unsigned n = 0; n < 8; ++n) slots.push_back(kColour[(mSlotLeds >> (2 * n)) & 3]);
    nlohmann::json bar = nlohmann::json::array();
    for (unsigned n = 0; n < 10; ++n) bar.push_back(((mLedBar >> n) & 1) != 0);
    return {{"ledBar", mLedBar},       {"slotLeds", mSlotLeds},           {"powerLed", mPowerLed},
            {"capacityMeter", mCapacityMeter}, {"slots", slots}, {"bar", bar},
            {"slotWrites", mSlotWrites}};
}

std::string Board::lastRebootReason() {
    std::ifstream in(mDir / "rebootreason", std::ios::binary);
    std::string s((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (s.size() > 256) s.resize(256);
    return s;
}

void Board::setLastRebootReason(const std::string& reason) {
    std::string s = reason.substr(0, 256);
    fs::path tmp = mDir / "rebootreason.tmp";
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        out << s;
    }
    fs::rename(tmp, mDir / "rebootreason");
}

void Board::restart(const std::string& why) {
    log("restart " + why);
    std::fflush(stdout);
    std::fflush(stderr);
    diagLogFlush();
    ::_exit(kRestartExitStatus);
}
