#pragma once
// ClusterRun: a run of clusters inside one Zone, the unit of exchange between
// the cluster manager, the CAT layers and Zone writes. `numberOfClusters` is
// the length; the last cluster of a run is firstCluster + numberOfClusters - 1
// (inclusive). An empty run names no cluster.
#include <cstdint>
#include <ostream>

struct ClusterRun {
    uint32_t zone = 0;
    uint32_t firstCluster = 0;
    uint32_t numberOfClusters = 0;

    ClusterRun() = default;
    ClusterRun(uint32_t z, uint32_t first, uint32_t count) : zone(z), firstCluster(first), numberOfClusters(count) {}

    bool empty() const { return numberOfClusters == 0; }
    // The last cluster of the run, inclusive; meaningless for an empty run.
    uint32_t lastCluster() const { return firstCluster + numberOfClusters - 1; }
    // One past the last cluster.
    uint32_t endCluster() const { return firstCluster + numberOfClusters; }
    bool contains(uint32_t z, uint32_t cluster) const {
        return z == zone && cluster >= firstCluster && cluster < endCluster();
    }

    // The pool's order: Zone, then first cluster.
    bool operator<(const ClusterRun& other) const {
        return zone != other.zone ? zone < other.zone : firstCluster < other.firstCluster;
    }
    bool operator==(const ClusterRun& other) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const ClusterRun& run) {
    return out << "zone=" << run.zone << " first=" << run.firstCluster << " count=" << run.numberOfClusters;
}
