#pragma once
// BitmapBlockUpdatesMonitor: the least the start-up and pack load sequence needs for now; it
// snoops no host writes yet.
#include "include/ManagerStandIn.h"

class BitmapBlockUpdatesMonitor : public LifecycleStandIn {
public:
    static BitmapBlockUpdatesMonitor* GetInstance();

private:
    BitmapBlockUpdatesMonitor() = default;
};
