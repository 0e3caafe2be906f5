#pragma once
// IscsiChap: the target's side of one-way CHAP in the security stage of
// login, when the operator has configured a user name and secret. It
// answers the algorithm offer (MD5 only) with an identifier and a random
// challenge, then checks the initiator's name and response. Mutual CHAP
// (the initiator challenging the target) is not offered; it fails the login.
#include <array>
#include <cstdint>
#include <string>

#include "platform/target/IscsiPdu.h"

namespace iscsi {

class IscsiChap {
public:
    enum class Step { Idle, Challenged, Passed, Failed };

    IscsiChap(std::string user, std::string secret) : mUser(std::move(user)), mSecret(std::move(secret)) {}

    // Takes the CHAP_* keys out of `keys`, adds the answer to `response`.
    // Returns the step reached; Failed ends the login with an authentication failure.
    Step handle(KeyValues& keys, KeyValues& response);
    Step step() const { return mStep; }

    // The expected CHAP_R for an identifier and challenge (tests build initiators with it).
    static std::string response(uint8_t id, const std::string& secret, const uint8_t* challenge, size_t length);

private:
    std::string mUser, mSecret;
    Step mStep = Step::Idle;
    uint8_t mId = 0;
    std::array<uint8_t, 16> mChallenge{};
};

}  // namespace iscsi
