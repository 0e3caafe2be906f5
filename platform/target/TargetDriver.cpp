#include "platform/target/TargetDriver.h"

#include "platform/target/CommandQueueDriver.h"
#include "platform/target/MultiIssueDriver.h"

TargetDriver& TargetDriver::GetInstance() {
    static TargetDriver instance;
    return instance;
}

StatusCode TargetDriver::start(const IscsiTargetConfig& config) {
    if (mTarget) return StatusCode::InitFailed;
    // The regions exist at their sizes by now: opening them again gives them as they are.
    StatusCode s = mRegions.open(4096, 4096, 2 * td::kRingSlots);
    if (!s.ok()) return s;
    mQueue = std::make_unique<CommandQueueDriver>(mRegions);
    mMulti = std::make_unique<MultiIssueDriver>(mRegions, *mQueue);
    mMulti->useWriteBufferPartition();
    mQueue->start();
    mMulti->start();
    auto target = std::make_unique<IscsiTarget>(*mMulti, config);
    s = target->start();
    if (!s.ok()) {
        mMulti->stop();
        mQueue->stop();
        return s;
    }
    mPortal = config.portal;
    mTarget = std::move(target);
    return StatusCode::Success;
}

void TargetDriver::stop() {
    if (!mTarget) return;
    mTarget->stop();
    mMulti->stop();
    mQueue->stop();
    mTarget.reset();
}

uint16_t TargetDriver::port() const { return mTarget ? mTarget->port() : 0; }

uint32_t TargetDriver::writeBuffersHeld() const { return mMulti ? mMulti->partitionBuffersHeld() : 0; }

size_t TargetDriver::connections() const { return mTarget ? mTarget->connectionCount() : 0; }
