#include "background/DataScrubber.h"


DataScrubber* DataScrubber::GetInstance() {
    static DataScrubber instance;
    return &instance;
}
