#pragma once
// HAManager: the host application's management path, the reader of
// HRManager's `mgmtDown` queue on its thread "tMgmt".
//
// For now the least the host path needs: it takes every management request
// (vendor MODE SENSE(10) and MODE SELECT(10) pages, command 0xEA) off the
// queue and answers it as not supported yet: a vendor page with
// UnknownMgmtSubpage (ILLEGAL REQUEST, INVALID FIELD IN CDB), anything else
// with FunctionNotImplemented (ILLEGAL REQUEST, INVALID COMMAND OPERATION
// CODE). It serves no management pages yet.
#include <atomic>
#include <cstdint>

#include "include/ManagerStandIn.h"

class HAManager : public ManagerStandIn {
public:
    static HAManager* GetInstance();
    StatusCode Initialize() override;
    uint64_t refusedRequests() const { return mRefused.load(); }

private:
    HAManager() = default;
    void managementLoop();
    bool mStarted = false;
    std::atomic<uint64_t> mRefused{0};
};
