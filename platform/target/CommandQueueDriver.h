#pragma once
// CommandQueueDriver: the target driver's side of the command queues.
// Everything that is not a data command travels here, one command at a time
// as the system's queue thread takes them: link events (with the iSCSI
// transport id), cache synchronisation, and management commands, whose
// command bytes and payload follow their TD_COMMAND_BLOCK as separate
// messages on "/tdToRtpQ". Answers come back as tdCmdResps on "/tdFromRtpQ";
// a management answer with data is followed by a 4-byte message of value 1
// and described by "/usbSgList" (offsets into "/readbuffer").
//
// Owns: the queue thread that sends each command and waits for its answer,
// and the list of commands waiting for it. Link events are sent in order
// with the commands.
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>

#include "platform/rtos/Rtos.h"
#include "platform/target/DriverRegions.h"
#include "platform/target/TargetBackend.h"

class CommandQueueDriver : public TargetBackend {
public:
    static constexpr int kMaxMessage = 0x80000 + 512;  // the largest management payload
    static constexpr int kQueueDepth = 64;

    explicit CommandQueueDriver(const DriverRegions& regions);
    ~CommandQueueDriver() override;
    CommandQueueDriver(const CommandQueueDriver&) = delete;
    CommandQueueDriver& operator=(const CommandQueueDriver&) = delete;

    void start();
    void stop();

    uint8_t* writeBuffer(TargetCommand&) override { return nullptr; }
    void submit(TargetCommand& cmd) override;
    void release(TargetCommand& cmd) override;
    void linkEvent(bool connected) override;

private:
    struct Item {
        TargetCommand* cmd;  // null for a link event
        bool connected;
    };
    void loop();
    void exchange(TargetCommand& cmd);
    bool receiveResponse(uint32_t tag, td::CmdResp& rsp);

    DriverRegions mRegions;
    MSG_Q_ID mToSystem;
    MSG_Q_ID mFromSystem;
    std::mutex mLock;
    std::condition_variable mWork;
    std::deque<Item> mItems;
    bool mStopping = false;
    uint32_t mNextTag = 1;
    std::thread mThread;
};
