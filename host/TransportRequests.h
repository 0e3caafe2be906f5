#pragma once
// The two transport-side request classes. Each wraps one ClientRequest with
// what its transport needs to answer the driver, and lives in its class's
// object pool from reception to release:
//  - USBHostRequest: the command queue path ("/tdToRtpQ", management, cache
//    synchronisation, link events) and the single-issue ring; a read's
//    buffers stay in use until the next command or an explicit release
//    (`lastRead`).
//  - MultiHostRequest: the multi-issue ring; a read's buffers stay in use
//    until the driver's TD_CMD_RES_RELEASE names the request's handle.
// A request is freed (deleted back to its pool) exactly once, by whichever
// comes last of its response and its release.
#include <cstdint>

#include "host/ClientRequest.h"
#include "include/ObjectPool.h"
#include "platform/target/TargetDriverRecords.h"
#include "util/PerfAccumulator.h"

class USBHostRequest : public HostRequest, public ObjectPool<USBHostRequest> {
public:
    USBHostRequest();
    ~USBHostRequest() override;

    void protoResponse() override;
    void protoRelease() override;
    void protoFastPathResponse(bool writeAck);
    // The command queue path; returns when the object has been passed on or freed.
    void rxCmd();
    // The single-issue ring.
    void rxDataCmd();

    unsigned char* writeData = nullptr;  // in the journal memory
    uint32_t payloadLength = 0;
    uint32_t cmdTag = 0;
    uint8_t responseType = td::kRespPlain;
    uint64_t startTime = 0;

private:
    // Copies the fields of a data command and stages a read or a write.
    void stageData(const td::CommandBlock& cmd, bool fastPath);
    void finishSentResponse(bool ok);
};

class MultiHostRequest : public HostRequest, public ObjectPool<MultiHostRequest> {
public:
    MultiHostRequest();
    ~MultiHostRequest() override;

    void protoResponse() override;
    void protoRelease() override;
    void protoFastPathResponse(bool writeAck);
    // The multi-issue ring; returns when the object has been passed on or freed.
    void rxDataIo();

    uint32_t requestId = 0;
    uint8_t context[12] = {};
    uint32_t handle = 0;       // the request handle the driver returns in TD_CMD_RES_RELEASE
    td::InterCoreSgl* sgl = nullptr;
    uint64_t startTime = 0;
};
