#include "management/HAManager.h"

#include <cstdio>

#include "host/ClientRequest.h"
#include "host/HRManager.h"
#include "platform/rtos/Rtos.h"
#include "util/Trace.h"

HAManager* HAManager::GetInstance() {
    static HAManager instance;
    return &instance;
}

StatusCode HAManager::Initialize() {
    if (mStarted) return StatusCode::Success;
    mStarted = true;
    if (taskSpawn("tMgmt", 117, [this] { managementLoop(); }) == nullptr) {
        std::printf("%s was not created\n", "tMgmt");
        return StatusCode::InitFailed;
    }
    return StatusCode::Success;
}

void HAManager::managementLoop() {
    HRManager* hrm = HRManager::GetInstance();
    for (;;) {
        ClientRequest* r = hrm->getMgmtRequest();
        uint8_t opcode = 0;
        if (r->window.GetLength() > 0) {
            DataBuffer b{1, &opcode};
            r->window.Read(b, 0, 1);
        }
        ++mRefused;
        ESA_CONSOLE("HAM: management command 0x" << std::hex << unsigned(opcode) << std::dec << " not supported yet");
        // The command block and payload are not answered with data.
        r->window.clear();
        r->store = nullptr;
        r->status = opcode == 0x5a || opcode == 0x55 ? StatusCode(StatusCode::UnknownMgmtSubpage)
                                                      : StatusCode(StatusCode::FunctionNotImplemented);
        hrm->putResponse(*r);
    }
}
