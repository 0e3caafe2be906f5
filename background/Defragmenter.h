#pragma once
// Defragmenter: the least the start-up and pack load sequence needs for now; it
// moves no clusters yet.
#include "include/ManagerStandIn.h"

class Defragmenter : public LifecycleStandIn {
public:
    static Defragmenter* GetInstance();

private:
    Defragmenter() = default;
};
