#pragma once
// IOTracker: the transaction of one operation. For now it carries only the
// flags word that fault injection marks (0x40: fail the next I/O of this
// transaction); locks, forks and the journal state come with the lock and
// transaction layer.
#include <cstdint>

class IOTracker {
public:
    static constexpr uint32_t kFailNextIo = 0x40;
    uint32_t flags = 0;
};
