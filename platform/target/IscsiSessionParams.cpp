#include "platform/target/IscsiSessionParams.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace iscsi {
namespace {

// Numbers in login keys are decimal or 0x-hex; a value that is not a number
// in range is a malformed key.
bool parseNumber(const std::string& text, uint32_t low, uint32_t high, uint32_t& out) {
    if (text.empty() || text.size() > 20) return false;
    char* end = nullptr;
    unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (end == nullptr || *end != 0 || v < low || v > high) return false;
    out = uint32_t(v);
    return true;
}

bool parseBool(const std::string& text, bool& out) {
    if (text == "Yes") { out = true; return true; }
    if (text == "No") { out = false; return true; }
    return false;
}

bool listContains(const std::string& list, const std::string& item) {
    std::stringstream ss(list);
    std::string part;
    while (std::getline(ss, part, ','))
        if (part == item) return true;
    return false;
}

const char* yesNo(bool v) { return v ? "Yes" : "No"; }

}  // namespace

NegotiationResult negotiate(IscsiSessionParams& p, const KeyValues& keys, int loginStage, bool announceOwn) {
    NegotiationResult r;
    auto fail = [&](uint8_t cls, uint8_t detail) {
        if (r.statusClass == 0) {
            r.statusClass = cls;
            r.statusDetail = detail;
        }
    };
    auto reject = [&](const std::string& key) { r.response.emplace_back(key, "Reject"); };

    for (const auto& [key, value] : keys) {
        uint32_t n = 0;
        bool b = false;
        if (key == "InitiatorName") {
            p.initiatorName = value;
        } else if (key == "InitiatorAlias" || key == "TargetAlias") {
            // Declarative, nothing to answer.
        } else if (key == "TargetName") {
            p.targetName = value;
        } else if (key == "SessionType") {
            if (value == "Discovery") p.discovery = true;
            else if (value == "Normal") p.discovery = false;
            else { fail(2, 0x07); continue; }
            p.sessionTypeSeen = true;
        } else if (key == "AuthMethod") {
            // No authentication unless the operator configures CHAP; then only CHAP.
            if (p.chapRequired && listContains(value, "CHAP")) {
                p.authMethodChap = true;
                r.response.emplace_back(key, "CHAP");
            } else if (!p.chapRequired && listContains(value, "None")) {
                p.authMethodNone = true;
                r.response.emplace_back(key, "None");
            } else {
                r.response.emplace_back(key, "Reject");
                fail(2, 0x01);
            }
        } else if (key == "HeaderDigest" || key == "DataDigest") {
            if (listContains(value, "None")) r.response.emplace_back(key, "None");
            else { reject(key); fail(2, 0x00); }
        } else if (key == "MaxConnections") {
            if (!parseNumber(value, 1, 65535, n)) { reject(key); continue; }
            r.response.emplace_back(key, "1");
        } else if (key == "InitialR2T") {
            if (!parseBool(value, b)) { reject(key); continue; }
            p.initialR2T = IscsiSessionParams::kPreferInitialR2T || b;
            r.response.emplace_back(key, yesNo(p.initialR2T));
        } else if (key == "ImmediateData") {
            if (!parseBool(value, b)) { reject(key); continue; }
            p.immediateData = b;
            r.response.emplace_back(key, yesNo(p.immediateData));
        } else if (key == "MaxRecvDataSegmentLength") {
            if (!parseNumber(value, 512, 16777215, n)) { reject(key); continue; }
            p.initiatorMaxRecvDataSegment = n;
        } else if (key == "MaxBurstLength") {
            if (!parseNumber(value, 512, 16777215, n)) { reject(key); continue; }
            p.maxBurstLength = std::min(IscsiSessionParams::kPreferMaxBurst, n);
            r.response.emplace_back(key, std::to_string(p.maxBurstLength));
        } else if (key == "FirstBurstLength") {
            if (!parseNumber(value, 512, 16777215, n)) { reject(key); continue; }
            p.firstBurstLength = std::min(IscsiSessionParams::kPreferFirstBurst, n);
            r.response.emplace_back(key, std::to_string(p.firstBurstLength));
        } else if (key == "DefaultTime2Wait") {
            if (!parseNumber(value, 0, 3600, n)) { reject(key); continue; }
            p.defaultTime2Wait = std::max<uint32_t>(2, n);
            r.response.emplace_back(key, std::to_string(p.defaultTime2Wait));
        } else if (key == "DefaultTime2Retain") {
            if (!parseNumber(value, 0, 3600, n)) { reject(key); continue; }
            p.defaultTime2Retain = 0;
            r.response.emplace_back(key, std::to_string(p.defaultTime2Retain));
        } else if (key == "MaxOutstandingR2T") {
            if (!parseNumber(value, 1, 65535, n)) { reject(key); continue; }
            p.maxOutstandingR2T = 1;
            r.response.emplace_back(key, std::to_string(p.maxOutstandingR2T));
        } else if (key == "DataPDUInOrder" || key == "DataSequenceInOrder") {
            if (!parseBool(value, b)) { reject(key); continue; }
            r.response.emplace_back(key, "Yes");  // the result is the OR; the target asks for order
        } else if (key == "ErrorRecoveryLevel") {
            if (!parseNumber(value, 0, 2, n)) { reject(key); continue; }
            r.response.emplace_back(key, "0");
        } else if (key == "IFMarker" || key == "OFMarker") {
            r.response.emplace_back(key, "No");
        } else {
            r.response.emplace_back(key, "NotUnderstood");
        }
    }
    if (announceOwn && loginStage == 1)
        r.response.emplace_back("MaxRecvDataSegmentLength", std::to_string(p.targetMaxRecvDataSegment));
    // The first burst can never exceed a burst.
    p.firstBurstLength = std::min(p.firstBurstLength, p.maxBurstLength);
    return r;
}

}  // namespace iscsi
