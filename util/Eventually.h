#pragma once
// eventually(pred): for tests of threads. Yields until pred() holds, giving up
// after a generous bound of real time (a hang turns into a failed check, not
// a stuck suite). It never measures how long anything took.
#include <chrono>
#include <thread>

template <class Pred>
bool eventually(Pred pred, std::chrono::seconds bound = std::chrono::seconds(20)) {
    auto giveUp = std::chrono::steady_clock::now() + bound;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > giveUp) return false;
        std::this_thread::yield();
    }
    return true;
}
