#pragma once
// TopEnd: the least the start-up and pack load sequence needs for now; it
// answers no host commands yet.
#include "include/ManagerStandIn.h"

class TopEnd : public LifecycleStandIn {
public:
    static TopEnd* GetInstance();

private:
    TopEnd() = default;
};
