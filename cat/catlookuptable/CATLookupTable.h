#pragma once
// CATLookupTable: the least the start-up and pack load sequence needs for now; it
// holds no map yet.
#include "include/ManagerStandIn.h"

class CATLookupTable : public ManagerStandIn {
public:
    static CATLookupTable* GetInstance();

private:
    CATLookupTable() = default;
};
