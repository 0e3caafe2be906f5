#include "scavenger/ClusterScavenger.h"


ClusterScavenger* ClusterScavenger::GetInstance() {
    static ClusterScavenger instance;
    return &instance;
}
