#pragma once
// ManagerBase: the base of the singleton managers that take part in the
// system's initialisation and in every pack load and unload. It has no data.
#include <ostream>

#include "util/StatusCode.h"

class ManagerBase {
public:
    virtual ~ManagerBase() = default;
    virtual StatusCode Initialize() = 0;
    virtual StatusCode LoadDiskPack() = 0;
    virtual StatusCode UnloadDiskPack() = 0;
    virtual StatusCode ReadConfigData(unsigned long& length, unsigned char* buffer) {
        (void)length;
        (void)buffer;
        return StatusCode::Success;
    }
    // Fills the drive-pack part of a management record; nothing to fill until
    // the management records exist.
    virtual StatusCode CopyDrivePackData() { return StatusCode::Success; }
    virtual StatusCode internalConsistencyCheck(std::ostream& out) {
        out << "No internal consistency check for this manager\n";
        return StatusCode::Success;
    }
    virtual StatusCode externalConsistencyCheck(std::ostream& out) {
        out << "No external consistency check for this manager\n";
        return StatusCode::Success;
    }
};
