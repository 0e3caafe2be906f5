#pragma once
// TargetDriver: the target driver of the appliance's own iSCSI host side, as
// the board brings it up beside the system: it opens the shared regions the
// system's transports use, and runs the command queue driver, the
// multi-issue ring driver (write data into the write-buffer partition) and
// the iSCSI portal on ESA_PORTAL. It answers from the LUN state the system
// pushes through the board calls; everything else goes to the system.
//
// Owns: the three driver objects and the regions' view. Started once, after
// the system has opened its side (queues, rings, partition, host LBA cache).
#include <cstdint>
#include <memory>
#include <string>

#include "platform/target/DriverRegions.h"
#include "platform/target/IscsiTarget.h"
#include "util/StatusCode.h"

class CommandQueueDriver;
class MultiIssueDriver;

class TargetDriver {
public:
    static TargetDriver& GetInstance();

    StatusCode start(const IscsiTargetConfig& config);
    void stop();
    bool running() const { return mTarget != nullptr; }
    uint16_t port() const;
    const std::string& portal() const { return mPortal; }
    // Write buffers taken for commands not yet posted to the system.
    uint32_t writeBuffersHeld() const;
    size_t connections() const;

private:
    TargetDriver() = default;
    DriverRegions mRegions;
    std::unique_ptr<CommandQueueDriver> mQueue;
    std::unique_ptr<MultiIssueDriver> mMulti;
    std::unique_ptr<IscsiTarget> mTarget;
    std::string mPortal;
};
