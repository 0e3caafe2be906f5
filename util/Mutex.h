#pragma once
// Mutex: a platform mutex with a name, the protection of one lock object.
// Lock objects are counted in thousands (one per cached range), so mutexes
// come from ObjectPool<Mutex>; the pool is sized at first use.
#include <mutex>
#include <string>

#include "include/ObjectPool.h"

class Mutex : public ObjectPool<Mutex> {
public:
    static constexpr size_t kPoolEntries = 13000;

    // Sizes the pool before the first mutex is made.
    static Mutex* Create(const std::string& name);

    void lock() { mMutex.lock(); }
    void unlock() { mMutex.unlock(); }
    bool try_lock() { return mMutex.try_lock(); }
    const std::string& name() const { return mName; }

private:
    explicit Mutex(const std::string& name) : mName(name) {}
    std::mutex mMutex;
    std::string mName;
};
