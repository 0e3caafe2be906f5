#pragma once
// MgmtClient: esactl's side of the management protocol. One iSCSI session to
// the array's target (LUN 0) through libiscsi; each call is one vendor
// command: MODE SENSE(10) with the page in byte 3, MODE SELECT(10) with the
// page in byte 3 and the record as data, or command 0xEA, 0x10 with the
// operation in byte 3. A refusal comes back as CHECK CONDITION, told here in
// words from its sense key and code.
#include <cstdint>
#include <string>
#include <vector>

struct iscsi_context;

namespace esactl {

struct MgmtResult {
    bool ok = false;
    bool reached = true;       // false: the command never got an answer (connection lost)
    int senseKey = 0;
    int asc = 0;               // asc << 8 | ascq
    std::string error;         // what went wrong, in words
    std::vector<uint8_t> data;  // the counted part of the answer
};

class MgmtClient {
public:
    static constexpr const char* kTarget = "iqn.2026-11.local.esa:array";
    MgmtClient() = default;
    ~MgmtClient();
    MgmtClient(const MgmtClient&) = delete;
    MgmtClient& operator=(const MgmtClient&) = delete;

    // Logs in; false with lastError() when the portal cannot be reached.
    bool connect(const std::string& portal);
    const std::string& lastError() const { return mError; }

    MgmtResult modeSense(uint8_t page, uint16_t allocation = 0x400, uint8_t byte4 = 0);
    MgmtResult modeSelect(uint8_t page, const std::vector<uint8_t>& record);
    // byte7 and byte9: the operation's own command bytes (sector count and start).
    MgmtResult systemOperation(uint8_t op, const std::vector<uint8_t>& data, uint16_t allocation = 0,
                               uint8_t byte7 = 0, uint8_t byte9 = 0);
    // Any command block, for tests of bad input.
    MgmtResult raw(const std::vector<uint8_t>& cdb, const std::vector<uint8_t>& dataOut, uint32_t dataIn);

    // Words for a refusal's sense key and code.
    static std::string refusalText(int key, int asc);

private:
    iscsi_context* mCtx = nullptr;
    std::string mError;
};

}  // namespace esactl
