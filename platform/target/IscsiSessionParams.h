#pragma once
// IscsiSessionParams: the operational parameters of one session, as the
// target offers them before login and as they stand once login has
// negotiated them. negotiate() answers one batch of initiator keys and
// updates the values; it never accepts a value outside what the target can
// honour (digests are never used, one connection per session, error
// recovery level 0, one outstanding R2T per command).
#include <cstdint>
#include <string>

#include "platform/target/IscsiPdu.h"

namespace iscsi {

struct IscsiSessionParams {
    // What the target would choose: the outcome when the initiator offers
    // more than this.
    static constexpr bool kPreferInitialR2T = false;
    static constexpr uint32_t kPreferMaxBurst = 1024 * 1024;
    static constexpr uint32_t kPreferFirstBurst = 256 * 1024;

    // The values in force: the protocol's defaults until a key changes them.
    bool initialR2T = true;
    bool immediateData = true;
    uint32_t maxBurstLength = 262144;
    uint32_t firstBurstLength = 65536;
    uint32_t maxOutstandingR2T = 1;
    uint32_t defaultTime2Wait = 2;
    uint32_t defaultTime2Retain = 20;
    // Declared by each side: the largest data segment it receives.
    uint32_t targetMaxRecvDataSegment = 256 * 1024;
    uint32_t initiatorMaxRecvDataSegment = 8192;  // the default until declared

    // Learnt from the initiator.
    std::string initiatorName;
    std::string targetName;
    bool discovery = false;
    bool sessionTypeSeen = false;
    bool authMethodNone = false;   // AuthMethod negotiated to None
    bool chapRequired = false;     // the operator configured CHAP: None is not accepted
    bool authMethodChap = false;   // AuthMethod negotiated to CHAP
};

// Outcome of a batch of keys: the response keys and, on a failure, the login
// status class and detail to answer with.
struct NegotiationResult {
    KeyValues response;
    uint8_t statusClass = 0;
    uint8_t statusDetail = 0;
};

// Applies the keys of one login or text request. `loginStage` is the
// current stage (0 security, 1 operational); `announceOwn` adds the target's
// own declarative keys (its receive segment length) once per login.
NegotiationResult negotiate(IscsiSessionParams& params, const KeyValues& keys, int loginStage, bool announceOwn);

}  // namespace iscsi
