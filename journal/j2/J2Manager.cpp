#include "journal/j2/J2Manager.h"


J2Manager* J2Manager::GetInstance() {
    static J2Manager instance;
    return &instance;
}
