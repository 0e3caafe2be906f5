#pragma once
// RamBackend: memory-backed LUNs served through the target's backend
// interface, for testing and measuring the protocol layer on its own. Each
// LUN is an anonymous mapping (zero until written); writes land straight in
// it and reads are sent straight from it, so the backend copies nothing.
// It pushes its LUNs into TargetLunTable as the system would.
#include <atomic>
#include <cstdint>
#include <vector>

#include "platform/target/TargetBackend.h"

class RamBackend : public TargetBackend {
public:
    RamBackend(uint32_t luns, uint64_t bytesPerLun);
    ~RamBackend() override;
    RamBackend(const RamBackend&) = delete;
    RamBackend& operator=(const RamBackend&) = delete;

    // Sets the LUN count and last LBAs, enables the transport and the media.
    void publish();
    // The same for LUNs served elsewhere (the ring responder).
    static void publishLuns(uint32_t luns, uint64_t bytesPerLun);

    uint8_t* writeBuffer(TargetCommand& cmd) override;
    void submit(TargetCommand& cmd) override;
    void release(TargetCommand& cmd) override;
    void linkEvent(bool connected) override;

    uint64_t submitted() const { return mSubmitted.load(); }
    // Commands given a buffer or submitted and not yet released; releases of
    // commands the backend never saw. Both stay 0 when the target keeps the
    // backend contract.
    int64_t held() const { return mHeld.load(); }
    uint64_t strayReleases() const { return mStrayReleases.load(); }
    int linkEvents() const { return mLinkEvents.load(); }

private:
    uint8_t* at(const TargetCommand& cmd) const;
    void hold(TargetCommand& cmd);
    std::vector<uint8_t*> mLuns;
    uint64_t mBytes;
    std::atomic<uint64_t> mSubmitted{0};
    std::atomic<int64_t> mHeld{0};
    std::atomic<uint64_t> mStrayReleases{0};
    std::atomic<int> mLinkEvents{0};
};
