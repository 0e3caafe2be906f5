#pragma once
// USBTransport: the least the start-up and pack load sequence needs for now; it
// records the transport state for the target side; no queues yet.
#include "util/StatusCode.h"

class USBTransport {
public:
    static USBTransport* GetInstance();
    void transportEnable(bool enable);
    bool enabled() const { return mEnabled; }

private:
    bool mEnabled = false;

public:

private:
    USBTransport() = default;
};
