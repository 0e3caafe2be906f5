#include "disk/ErrorPolicy.h"


ErrorPolicy* ErrorPolicy::GetInstance() {
    static ErrorPolicy instance;
    return &instance;
}
