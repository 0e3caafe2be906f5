#include "background/Defragmenter.h"


Defragmenter* Defragmenter::GetInstance() {
    static Defragmenter instance;
    return &instance;
}
