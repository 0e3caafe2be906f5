#include "util/Trace.h"

// The system console channel. It is written through writeLine, which ignores
// the switches, so it is on whatever they say.
Trace coutTrace("std", "cout", "data", true);
