#include "util/Mutex.h"

Mutex* Mutex::Create(const std::string& name) {
    static bool sized = (ObjectPool<Mutex>::Initialize(kPoolEntries), true);
    (void)sized;
    return new Mutex(name);
}
