#include "management/LEDMan.h"

#include <cstdio>

#include "platform/board/BoardServices.h"
#include "util/ConsoleCommand.h"

LEDMan* LEDMan::GetInstance() {
    static LEDMan instance;
    return &instance;
}

StatusCode LEDMan::Initialize() {
    if (mStarted) return StatusCode::Success;
    mStarted = true;
    mWake = semBCreate(0, SEM_EMPTY);
    if (taskSpawn("tLEDMan", 100, [this] { LEDLoop(); }) == nullptr) return StatusCode::InitFailed;
    mRegisterFd = boardOpen("/ESA_REGISTER", 2);
    if (mRegisterFd < 0) {
        std::printf("ERROR: Open LED port failed\n");
        return StatusCode::DDM_OpenLEDPortFailed;
    }
    return StatusCode::Success;
}

void LEDMan::SetSlotLed(unsigned slot, uint8_t colour1, uint8_t colour2) {
    if (slot >= 8) return;
    const unsigned shift = 2 * slot;
    const uint16_t mask = uint16_t(3u << shift);
    uint16_t old1 = mSlotsColor1, old2 = mSlotsColor2;
    uint16_t new1 = uint16_t((old1 & ~mask) | ((colour1 & 3u) << shift));
    uint16_t new2 = uint16_t((old2 & ~mask) | ((colour2 & 3u) << shift));
    mSlotsColor1 = new1;
    mSlotsColor2 = new2;
    if ((new1 != old1 || new2 != old2) && mWake) semGive(mWake);
}

// A steady power colour goes out with the next wake-up; two different phases
// wake the thread at once.
void LEDMan::SetPowerLed(uint8_t colour1, uint8_t colour2) {
    if (colour1 != mPowerColor1 || colour2 != mPowerColor2) {
        mPowerColor1 = colour1;
        mPowerColor2 = colour2;
        if (colour1 != colour2 && mWake) semGive(mWake);
    }
}

void LEDMan::capMeterOff() {
    if (mRegisterFd >= 0) boardIoctl(mRegisterFd, EsaRegisterIoctl::CapacityMeterOff, 0);
}

void LEDMan::LedBar(uint32_t pattern) {
    if (mRegisterFd >= 0) boardIoctl(mRegisterFd, EsaRegisterIoctl::LedBar, intptr_t(pattern));
}

void LEDMan::LEDLoop() {
    for (;;) {
        semTake(mWake, mFlashingPeriod);
        const uint16_t s1 = mSlotsColor1, s2 = mSlotsColor2;
        const uint8_t p1 = mPowerColor1, p2 = mPowerColor2;
        if (s1 == s2 && p1 == p2) {
            mFlashingPeriod = WAIT_FOREVER;
        } else if (mFlashingPeriod == WAIT_FOREVER) {
            mFlashingPeriod = kFlashTicks;
            mLedBlinkState = 1;
        }
        uint8_t power = mLedBlinkState == 1 ? p1 : p2;
        if (p1 != 0xFF && p2 != 0xFF && mRegisterFd >= 0 && power != mLastPower) {
            boardIoctl(mRegisterFd, EsaRegisterIoctl::PowerLed, intptr_t(&power));
            mLastPower = power;
        }
        uint32_t word = mLedBlinkState == 1 ? s1 : s2;
        if (mRegisterFd >= 0) boardIoctl(mRegisterFd, EsaRegisterIoctl::SlotLeds, intptr_t(&word));
        if (mFlashingPeriod != WAIT_FOREVER) mLedBlinkState = mLedBlinkState == 1 ? 2 : 1;
    }
}

void LEDMan::Dump(std::ostream& out) {
    char line[128];
    std::snprintf(line, sizeof line, "LEDMan: slotsColor1 0x%04x slotsColor2 0x%04x power 0x%02x/0x%02x period %d\n",
                  unsigned(mSlotsColor1), unsigned(mSlotsColor2), unsigned(mPowerColor1), unsigned(mPowerColor2),
                  mFlashingPeriod);
    out << line;
}
