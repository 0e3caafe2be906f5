#pragma once
// ScavengerTicker: the least the start-up and pack load sequence needs for now; it
// ticks nothing yet.
#include "include/ManagerStandIn.h"

class ScavengerTicker : public LifecycleStandIn {
public:
    static ScavengerTicker* GetInstance();

private:
    ScavengerTicker() = default;
};
