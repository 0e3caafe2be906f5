#include "host/USBTransport.h"

#include "platform/board/BoardServices.h"

void USBTransport::transportEnable(bool enable) {
    mEnabled = enable;
    boardSyscall(BoardSyscall::RtpEnableState, enable ? 0 : 1);
}

USBTransport* USBTransport::GetInstance() {
    static USBTransport instance;
    return &instance;
}
