#pragma once
// J1Replay: the replay tags of host writes in battery-backed memory.
//
// For now the least the host path needs: no tags. allocateTag gives none, so
// no write is acknowledged before it has been written through the map, and
// there is nothing to replay. It keeps no tag cache and replays nothing yet.
struct J1ReplayTag;
class ClientRequest;

class J1Replay {
public:
    static J1Replay* GetInstance();
    // The write's place in battery-backed memory; null: none, the write is
    // acknowledged only when it is on the disks.
    J1ReplayTag* allocateTag(ClientRequest& request) {
        (void)request;
        return nullptr;
    }
    void abortTag(ClientRequest& request) { (void)request; }

private:
    J1Replay() = default;
};
