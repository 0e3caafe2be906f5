#pragma once
// HAManager: the least the start-up and pack load sequence needs for now; it
// answers no management requests yet.
#include "include/ManagerStandIn.h"

class HAManager : public ManagerStandIn {
public:
    static HAManager* GetInstance();

private:
    HAManager() = default;
};
