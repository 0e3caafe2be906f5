#pragma once
// IscsiConnection: one TCP connection and the session it carries, from login
// to logout. Its thread reads every PDU; commands that need the system go to
// the backend and may complete on any thread, so everything written to the
// socket goes through one send lock, and the task table has its own lock.
//
// Owns: the socket, the receive buffer, the task table (every command
// between its arrival and its response), the sequence numbers (StatSN of the
// connection, ExpCmdSN of the session) and the negotiated parameters.
// Invariants: a task is in the table until its response is sent or it is
// aborted and the backend has finished with it; the thread returns from
// run() only when no submitted task is left, so the backend never completes
// into a freed connection.
#include <sys/uio.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/target/IscsiPdu.h"
#include "platform/target/IscsiSessionParams.h"
#include "platform/target/ScsiResponder.h"
#include "platform/target/TargetLunTable.h"
#include "platform/target/TargetBackend.h"

class IscsiTarget;

class IscsiConnection : public TargetCompletion {
public:
    IscsiConnection(IscsiTarget& target, int fd, uint64_t id);
    ~IscsiConnection() override;

    void run();
    // Ends the connection from another thread: the reader sees end of file.
    void shutdownSocket();
    uint64_t id() const { return mId; }

    void commandDone(TargetCommand& cmd) override;

    // A reset from another session: the tasks of the LUN (or all) are marked
    // aborted and end without a response; this connection's own thread
    // drops them when their data are in or the backend is done with them.
    void markAborted(bool allLuns, uint32_t lun);

private:
    struct Task;
    enum class Phase { Login, FullFeature, Ending };

    // ---- reading
    bool readExact(void* dst, size_t n);
    bool skipBytes(size_t n);
    bool readHeader(iscsi::Pdu& pdu);
    bool readSegment(iscsi::Pdu& pdu);  // the data segment into pdu.data, padding dropped
    bool receiveInto(Task& task, uint32_t offset, uint32_t length);

    // ---- login
    bool login();
    bool sendLoginResponse(const iscsi::Pdu& req, uint8_t flags, uint8_t cls, uint8_t detail,
                           const iscsi::KeyValues& keys);

    // ---- full feature phase
    bool fullFeature();
    bool acceptCmdSn(const iscsi::Bhs& bhs);  // false: outside the window, drop the PDU
    bool handleScsiCommand(iscsi::Pdu& pdu);
    bool handleDataOut(iscsi::Pdu& pdu);
    bool handleNopOut(iscsi::Pdu& pdu);
    bool handleTaskManagement(iscsi::Pdu& pdu);
    bool handleText(iscsi::Pdu& pdu);
    bool handleLogout(iscsi::Pdu& pdu);
    bool protocolError(const iscsi::Pdu& pdu, uint8_t reason, const char* why);

    bool startWriteTransfer(Task& task);
    bool sendR2T(Task& task);
    void executeTask(Task* task);
    void finishLocally(Task* task, const scsi::Decision& d);

    // ---- responses
    void sendDataAndStatus(Task& task, const std::vector<TargetSegment>& data, uint64_t available,
                           uint8_t status, const scsi::Sense& sense);
    void sendScsiResponse(Task& task, uint8_t status, const scsi::Sense& sense, uint8_t residualFlags,
                          uint32_t residual);
    void fillSequence(iscsi::Bhs& bhs, bool advanceStatSn);  // StatSN, ExpCmdSN, MaxCmdSN; under mSendLock
    bool sendIov(struct iovec* iov, int count);               // under mSendLock
    bool sendPdu(iscsi::Bhs& bhs, const void* data, uint32_t length, bool advanceStatSn);

    // ---- tasks
    Task* findTask(uint32_t itt);
    void removeTask(Task* task);
    void abortTasks(bool allLuns, uint32_t lun);
    void drainSubmitted();

    IscsiTarget& mTarget;
    TargetBackend& mBackend;
    const scsi::ScsiResponder& mResponder;
    int mFd;
    uint64_t mId;
    Phase mPhase = Phase::Login;

    std::vector<uint8_t> mRx;
    size_t mRxStart = 0, mRxEnd = 0;
    std::vector<uint8_t> mDiscard;

    iscsi::IscsiSessionParams mParams;
    uint64_t mIsid = 0;
    uint16_t mTsih = 0;
    bool mRegistered = false;
    uint32_t mCommandWindow;
    std::atomic<uint32_t> mExpCmdSn{0};

    std::mutex mSendLock;
    uint32_t mStatSn = 0;
    bool mSendFailed = false;

    std::mutex mTaskLock;
    std::condition_variable mTaskDone;
    std::unordered_map<uint32_t, std::unique_ptr<Task>> mTasks;
    std::atomic<uint32_t> mOutstanding{0};
    size_t mSubmitted = 0;
    uint32_t mNextTtt = 1;

    // Unit attentions: the LUN table's change counts as this session last
    // reported them (taken when the connection was made).
    bool pendingUnitAttention(uint8_t opcode, uint32_t lun, scsi::Decision& out);
    uint64_t mInventorySeen = 0;
    std::array<uint64_t, TargetLunTable::kMaxLuns> mCapacitySeen{};
};
