#include "host/Dispatcher.h"


Dispatcher* Dispatcher::GetInstance() {
    static Dispatcher instance;
    return &instance;
}
