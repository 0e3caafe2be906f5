#pragma once
// LunDelete: the deletion of a LUN and the freeing of its clusters.
//
// NOT BUILT YET: this is the least the CAT lookup table's pack load calls.
// LoadDiskPack finds no leftover work (it does not read or make the
// "LUN--DEL" area), and deleteLun refuses every deletion with
// FunctionNotImplemented, changing nothing: a LUN, once created, stays.
#include <cstdint>

#include "util/StatusCode.h"

class LunDelete {
public:
    static LunDelete* GetInstance();
    StatusCode LoadDiskPack();
    StatusCode UnloadDiskPack();
    StatusCode deleteLun(unsigned long lun, unsigned short ident);

private:
    LunDelete() = default;
};
