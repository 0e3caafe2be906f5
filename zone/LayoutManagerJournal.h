#pragma once
// The metadata journal as a move uses it: a sync before the copy, room made
// between chunks, and spills held off while a chunk moves. Without a running
// journal (tools, unit tests) metadata goes straight through and there is
// nothing to wait for.
#include <optional>

#include "journal/j2/J2Manager.h"

inline void journalSync() {
    if (J2Manager::GetInstance()->journalling()) J2Manager::GetInstance()->sync();
}
inline void journalFlushIfOverHalfFull() {
    if (J2Manager::GetInstance()->journalling()) J2Manager::GetInstance()->flushIfOverHalfFull();
}
// Holds "rJ2Flush" for its scope when the journal runs.
class JournalHold {
public:
    JournalHold() {
        if (J2Manager::GetInstance()->journalling()) mHold.emplace(*J2Manager::GetInstance());
    }

private:
    std::optional<J2Manager::FlushHold> mHold;
};
