#pragma once
// DataScrubber: the least the start-up and pack load sequence needs for now; it
// scrubs nothing yet.
#include "include/ManagerStandIn.h"

class DataScrubber : public ManagerStandIn {
public:
    static DataScrubber* GetInstance();

private:
    DataScrubber() = default;
};
