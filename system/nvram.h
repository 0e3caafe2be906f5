#pragma once
// nvram: the least start-up needs for now: it opens the two battery-backed
// regions. Headers, partitions and their checks come with the NVRAM layer.
#include "util/StatusCode.h"

class nvram {
public:
    static nvram* GetInstance();
    StatusCode Initialize(bool clear);

private:
    nvram() = default;
    unsigned mRegions = 0;
};
