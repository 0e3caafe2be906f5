#pragma once
// LockObjectBase: what all lock classes share. `bypass` is set when the
// system is being dumped after an assertion, so that the dump never blocks on
// a lock that a halted thread holds.
#include <atomic>

class LockObjectBase {
public:
    static std::atomic<bool> bypass;
};
