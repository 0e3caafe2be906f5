#include "util/Mutex.h"

#include <thread>

Mutex* Mutex::Create(const std::string& name) {
    static bool sized = (ObjectPool<Mutex>::Initialize(kPoolEntries), true);
    (void)sized;
    return new Mutex(name);
}

void Mutex::lockContended() {
    for (unsigned spins = 0;; ++spins) {
        if (try_lock()) return;
        if (spins < 100) {
#if defined(__x86_64__) || defined(__i386__)
            __builtin_ia32_pause();
#endif
        } else {
            std::this_thread::yield();
        }
    }
}
