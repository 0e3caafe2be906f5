#pragma once
// CATManager: the least the start-up and pack load sequence needs for now; it
// maps no LUNs yet.
#include "include/ManagerStandIn.h"

class CATManager : public ManagerStandIn {
public:
    static CATManager* GetInstance();

private:
    CATManager() = default;
};
