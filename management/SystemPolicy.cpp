#include "management/SystemPolicy.h"


SystemPolicy* SystemPolicy::GetInstance() {
    static SystemPolicy instance;
    return &instance;
}
