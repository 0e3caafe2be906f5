#pragma once
// Board: the simulated appliance board, a directory named by ESA_BOARD.
//
// It owns board.json (serial number, platform id, lab flag, clear button,
// temperatures, fan, battery and PMU state, power switch), the LED state
// (mirrored to leds.json on change), the last reboot reason, the named shared
// regions (battery-backed ones are files in nvram/ mapped MAP_SHARED, so they
// survive kill -9 as battery-backed memory survives a power cut) and the board
// log: every system call and ioctl is appended to board.log, one line each, so
// tests can read what the system asked of its board.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

class Board {
public:
    // Exit status of the process when the board restarts it; run.sh and the
    // tests start the appliance again on this status.
    static constexpr int kRestartExitStatus = 75;
    // Exit status of a named crash point (a power cut at an exact place).
    static constexpr int kCrashPointExitStatus = 137;

    static Board& GetInstance();

    // Opens (and on first use creates) the board directory: ESA_BOARD or ./esa-board.
    void open();
    void open(const std::filesystem::path& dir);
    bool isOpen() const { return mOpen; }
    const std::filesystem::path& dir() const { return mDir; }
    std::filesystem::path path(const std::string& relative) const { return mDir / relative; }

    // Creates a default board directory with no disks (esa-board adds disks).
    static void createDefault(const std::filesystem::path& dir);

    // board.json, re-read on each access so that esa-board edits take effect.
    nlohmann::json config();
    void updateConfig(const std::function<void(nlohmann::json&)>& edit);

    void log(const std::string& line);

    // Named shared regions. Battery-backed names map a file under nvram/.
    void* openRegion(const std::string& name, size_t size, size_t* actualSize = nullptr);
    static bool isBatteryBacked(const std::string& name);

    // LEDs.
    void setLedBar(uint32_t pattern);
    uint32_t ledBar();
    void setSlotLeds(uint32_t bits);
    void setPowerLed(uint8_t colour);
    void setCapacityMeter(int percent);  // -1: off
    nlohmann::json ledState();

    // The last reboot reason, kept by the board across restarts (256 bytes).
    std::string lastRebootReason();
    void setLastRebootReason(const std::string& reason);

    // Ends the process as the board's restart does.
    [[noreturn]] void restart(const std::string& why);

private:
    Board() = default;
    void writeLeds();
    nlohmann::json ledStateLocked() const;

    std::mutex mLock;
    bool mOpen = false;
    std::filesystem::path mDir;
    struct Region {
        void* base;
        size_t size;
    };
    std::map<std::string, Region> mRegions;
    uint32_t mLedBar = 0;
    uint32_t mSlotLeds = 0;
    uint64_t mSlotWrites = 0;  // writes of the slot word: a reader tells a new phase from an old one
    int mPowerLed = 0;
    int mCapacityMeter = -1;
    int mLogFd = -1;
};
