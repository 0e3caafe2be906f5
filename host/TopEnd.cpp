#include "host/TopEnd.h"


TopEnd* TopEnd::GetInstance() {
    static TopEnd instance;
    return &instance;
}
