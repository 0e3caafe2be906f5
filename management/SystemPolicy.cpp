#include "management/SystemPolicy.h"

#include "util/Trace.h"


SystemPolicy* SystemPolicy::GetInstance() {
    static SystemPolicy instance;
    return &instance;
}

void SystemPolicy::DiskFail(unsigned short slot) { ESA_CONSOLE("SP: disk in slot " << slot << " FAILED"); }

void SystemPolicy::help() { ESA_CONSOLE("SP: HELP - no loadable disk pack"); }
