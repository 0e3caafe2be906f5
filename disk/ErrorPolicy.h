#pragma once
// ErrorPolicy: the least the start-up and pack load sequence needs for now; it
// takes no action on disk errors yet.
#include "include/ManagerStandIn.h"

class ErrorPolicy : public ManagerStandIn {
public:
    static ErrorPolicy* GetInstance();

private:
    ErrorPolicy() = default;
};
