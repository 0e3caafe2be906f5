#pragma once
// The J2 trace stream ("J2:J2Manager:Info").
#include "util/Trace.h"

extern Trace j2Trace;
