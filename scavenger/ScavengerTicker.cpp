#include "scavenger/ScavengerTicker.h"


ScavengerTicker* ScavengerTicker::GetInstance() {
    static ScavengerTicker instance;
    return &instance;
}
