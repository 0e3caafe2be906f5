#pragma once
// Dispatcher: the least the start-up and pack load sequence needs for now; it
// runs no read or write threads yet.
#include "include/ManagerStandIn.h"

class Dispatcher : public LifecycleStandIn {
public:
    static Dispatcher* GetInstance();

private:
    Dispatcher() = default;
};
