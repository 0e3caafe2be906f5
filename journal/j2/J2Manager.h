#pragma once
// J2Manager: the least the start-up and pack load sequence needs for now; it
// writes metadata straight through: the journal is not built yet.
#include "include/ManagerStandIn.h"

class J2Manager : public ManagerStandIn {
public:
    static J2Manager* GetInstance();
    bool nvramCorrupt() const { return false; }
    const char* nvramCorruptMessage() const { return ""; }
    void forceFlush(bool wait) { (void)wait; }

private:
    J2Manager() = default;
};
