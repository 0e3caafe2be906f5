#include "management/SystemPolicy.h"

#include "disk/ErrorPolicy.h"
#include "util/Trace.h"


SystemPolicy* SystemPolicy::GetInstance() {
    static SystemPolicy instance;
    return &instance;
}

StatusCode SystemPolicy::Initialize() {
    ErrorPolicy::GetInstance()->limits().setDefaults();
    return StatusCode::Success;
}

void SystemPolicy::DiskFail(unsigned short slot) { ESA_CONSOLE("SP: disk in slot " << slot << " FAILED"); }

void SystemPolicy::help() { ESA_CONSOLE("SP: HELP - no loadable disk pack"); }
