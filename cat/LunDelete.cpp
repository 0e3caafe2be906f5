#include "cat/LunDelete.h"

#include "util/Trace.h"

LunDelete* LunDelete::GetInstance() {
    static LunDelete instance;
    return &instance;
}

StatusCode LunDelete::LoadDiskPack() { return StatusCode::Success; }

StatusCode LunDelete::UnloadDiskPack() { return StatusCode::Success; }

StatusCode LunDelete::deleteLun(unsigned long lun, unsigned short ident) {
    ESA_CONSOLE("Lun-Del:deleteLun: LUN deletion is not available yet; LUN " << lun << " (id " << ident
                                                                             << ") is kept");
    return StatusCode::FunctionNotImplemented;
}
