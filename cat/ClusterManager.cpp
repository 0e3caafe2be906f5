#include "cat/ClusterManager.h"


ClusterManager* ClusterManager::GetInstance() {
    static ClusterManager instance;
    return &instance;
}
