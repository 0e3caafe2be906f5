#pragma once
// LEDMan: owns the front panel lights and makes them flash. It holds two
// phase words for the eight slot lights (2 bits a slot: 0 yellow, 1 red,
// 2 green, 3 off; slot n at bits 2n and 2n+1) and two phase bytes for the
// power light; its thread "tLEDMan" writes the word of the present phase to
// the board and, while any light flashes, flips the phase every 54 ticks, so
// all flashing lights run in step.
//
// Invariants: the writer changes whole words and gives the semaphore; the
// thread only reads them. Without the "/ESA_REGISTER" port nothing is written.
#include <atomic>
#include <cstdint>
#include <ostream>

#include "platform/rtos/Rtos.h"
#include "util/StatusCode.h"

class LEDMan {
public:
    static constexpr int kFlashTicks = 54;
    static LEDMan* GetInstance();

    StatusCode Initialize();
    void SetSlotLed(unsigned slot, uint8_t colour1, uint8_t colour2);
    void SetPowerLed(uint8_t colour1, uint8_t colour2);
    void capMeterOff();
    void LedBar(uint32_t pattern);

    uint16_t slotsColor1() const { return mSlotsColor1.load(); }
    uint16_t slotsColor2() const { return mSlotsColor2.load(); }
    void Dump(std::ostream& out);

private:
    LEDMan() = default;
    void LEDLoop();

    bool mStarted = false;
    SEM_ID mWake = nullptr;
    int mRegisterFd = -1;
    std::atomic<uint16_t> mSlotsColor1{0xFFFF};
    std::atomic<uint16_t> mSlotsColor2{0xFFFF};
    std::atomic<uint8_t> mPowerColor1{0xFF};
    std::atomic<uint8_t> mPowerColor2{0xFF};
    int mFlashingPeriod = -1;  // ticks; -1 waits for the next change
    int mLedBlinkState = 1;
    uint8_t mLastPower = 0xFF;
};
