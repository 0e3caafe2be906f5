#pragma once
// The status page of `esactl serve`: a small HTTP server on a local address
// that answers "/" with the appliance drawn as the front of the box (slots
// and their lights), capacity, LUNs, relayout progress and recent events,
// refreshing itself, and "/api/status" with the same as JSON. Each request
// reads the appliance afresh through the management protocol.
#include <string>

namespace esactl {

// Serves until killed; returns an exit status when the address cannot be used.
int serveStatusPage(const std::string& portal, const std::string& listen);

// The page for one reading (or for an unreachable appliance: `error`).
std::string renderStatusPage(const std::string& portal, const std::string& error);

}  // namespace esactl
