#include "platform/target/IscsiChap.h"

#include <random>
#include <sstream>

#include "platform/target/Md5.h"

namespace iscsi {
namespace {

std::string toHex(const uint8_t* p, size_t n) {
    static const char* digits = "0123456789abcdef";
    std::string s = "0x";
    for (size_t i = 0; i < n; ++i) {
        s += digits[p[i] >> 4];
        s += digits[p[i] & 15];
    }
    return s;
}

bool listContains(const std::string& list, const std::string& item) {
    std::stringstream ss(list);
    std::string part;
    while (std::getline(ss, part, ','))
        if (part == item) return true;
    return false;
}

}  // namespace

std::string IscsiChap::response(uint8_t id, const std::string& secret, const uint8_t* challenge, size_t length) {
    std::vector<uint8_t> in;
    in.push_back(id);
    in.insert(in.end(), secret.begin(), secret.end());
    in.insert(in.end(), challenge, challenge + length);
    auto digest = md5(in);
    return toHex(digest.data(), digest.size());
}

IscsiChap::Step IscsiChap::handle(KeyValues& keys, KeyValues& out) {
    std::string algorithms, name, resp;
    bool mutual = false, any = false;
    for (auto it = keys.begin(); it != keys.end();) {
        if (it->first.rfind("CHAP_", 0) != 0) {
            ++it;
            continue;
        }
        any = true;
        if (it->first == "CHAP_A") algorithms = it->second;
        else if (it->first == "CHAP_N") name = it->second;
        else if (it->first == "CHAP_R") resp = it->second;
        else if (it->first == "CHAP_I" || it->first == "CHAP_C") mutual = true;
        it = keys.erase(it);
    }
    if (!any || mStep == Step::Failed) return mStep;
    if (mStep == Step::Idle) {
        if (!listContains(algorithms, "5")) return mStep = Step::Failed;  // MD5 only
        std::random_device rd;
        mId = uint8_t(rd());
        for (auto& b : mChallenge) b = uint8_t(rd());
        out.emplace_back("CHAP_A", "5");
        out.emplace_back("CHAP_I", std::to_string(mId));
        out.emplace_back("CHAP_C", toHex(mChallenge.data(), mChallenge.size()));
        return mStep = Step::Challenged;
    }
    if (mStep == Step::Challenged) {
        if (mutual || name != mUser) return mStep = Step::Failed;
        std::string expected = response(mId, mSecret, mChallenge.data(), mChallenge.size());
        // Hex digits in either case.
        std::string got = resp;
        for (auto& c : got) c = char(std::tolower(static_cast<unsigned char>(c)));
        return mStep = (got == expected ? Step::Passed : Step::Failed);
    }
    return mStep;
}

}  // namespace iscsi
