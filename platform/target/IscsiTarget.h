#pragma once
// IscsiTarget: the listening portal of the appliance's iSCSI target. It owns
// the listening socket, the accept thread and every live connection (one
// thread each), and the session registry that gives out TSIHs and
// reinstates a session when its initiator logs in again with the same ISID.
// Each connection is one session (MaxConnections=1). The commands go to the
// backend given at construction; the LUNs are those of TargetLunTable.
//
// Invariants: a connection is in mConnections from accept until its thread
// has finished with it; stop() returns only when no connection thread is left.
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "platform/target/ScsiResponder.h"
#include "platform/target/TargetBackend.h"
#include "util/StatusCode.h"

class IscsiConnection;

struct IscsiTargetConfig {
    // "host:port"; port 0 picks a free port (see IscsiTarget::port()).
    std::string portal = "127.0.0.1:3260";
    std::string targetName = "iqn.2026-11.local.esa:array";
    // Commands the initiator may have outstanding per session.
    uint32_t commandWindow = 128;
    // One-way CHAP: with a user name set, every login must authenticate as
    // that user with that secret; empty means no authentication.
    std::string chapUser;
    std::string chapSecret;

    // The portal from ESA_PORTAL, and CHAP from ESA_CHAP ("user:secret"), when set.
    static IscsiTargetConfig fromEnvironment();
};

class IscsiTarget {
public:
    IscsiTarget(TargetBackend& backend, IscsiTargetConfig config);
    ~IscsiTarget();
    IscsiTarget(const IscsiTarget&) = delete;
    IscsiTarget& operator=(const IscsiTarget&) = delete;

    StatusCode start();
    void stop();

    uint16_t port() const { return mPort; }
    const IscsiTargetConfig& config() const { return mConfig; }
    TargetBackend& backend() { return mBackend; }
    const scsi::ScsiResponder& responder() const { return mResponder; }

    // Session registry, called by connections.
    // Registers a new session for (initiator, ISID); an older session with
    // the same pair is ended (reinstatement). Returns the TSIH.
    uint16_t registerSession(IscsiConnection* conn, const std::string& initiator, uint64_t isid, bool normal);
    void unregisterSession(IscsiConnection* conn);

    // A LUN reset or target reset from one session aborts the tasks of the others.
    void abortInOtherSessions(IscsiConnection* from, bool allLuns, uint32_t lun);

    size_t connectionCount();
    size_t sessionCount();

private:
    void acceptLoop();
    void connectionThread(std::shared_ptr<IscsiConnection> conn);

    TargetBackend& mBackend;
    IscsiTargetConfig mConfig;
    scsi::ScsiResponder mResponder;
    int mListenFd = -1;
    uint16_t mPort = 0;
    std::thread mAcceptThread;
    std::atomic<bool> mStopping{false};

    std::mutex mLock;
    std::condition_variable mIdle;
    std::map<uint64_t, std::shared_ptr<IscsiConnection>> mConnections;
    uint64_t mNextConnectionId = 1;
    struct SessionEntry {
        IscsiConnection* conn;
        std::string initiator;
        uint64_t isid;
        bool normal;
    };
    std::map<uint16_t, SessionEntry> mSessions;  // by TSIH
    uint16_t mNextTsih = 1;
    size_t mNormalSessions = 0;
};
