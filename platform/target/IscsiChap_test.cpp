// One-way CHAP as the target checks it, and the MD5 under it.
#include <gtest/gtest.h>

#include <cstring>

#include "platform/target/IscsiChap.h"
#include "platform/target/Md5.h"

using namespace iscsi;

namespace {
std::string hex(const std::array<uint8_t, 16>& d) {
    std::string s;
    char b[3];
    for (uint8_t x : d) {
        std::snprintf(b, sizeof b, "%02x", x);
        s += b;
    }
    return s;
}
std::string value(const KeyValues& kv, const std::string& key) {
    for (const auto& [k, v] : kv)
        if (k == key) return v;
    return {};
}
std::vector<uint8_t> unhex(const std::string& s) {
    std::vector<uint8_t> out;
    for (size_t i = 2; i + 1 < s.size(); i += 2) out.push_back(uint8_t(std::stoi(s.substr(i, 2), nullptr, 16)));
    return out;
}
}  // namespace

TEST(Md5, KnownDigests) {
    EXPECT_EQ(hex(md5(nullptr, 0)), "d41d8cd98f00b204e9800998ecf8427e");
    const char abc[] = "abc";
    EXPECT_EQ(hex(md5(reinterpret_cast<const uint8_t*>(abc), 3)), "900150983cd24fb0d6963f7d28e17f72");
    const char longer[] = "12345678901234567890123456789012345678901234567890123456789012345678901234567890";
    EXPECT_EQ(hex(md5(reinterpret_cast<const uint8_t*>(longer), std::strlen(longer))),
              "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(IscsiChap, RightNameAndResponsePass) {
    IscsiChap chap("alice", "s3cretpass1234");
    KeyValues keys = {{"CHAP_A", "7,5"}}, out;
    ASSERT_EQ(chap.handle(keys, out), IscsiChap::Step::Challenged);
    EXPECT_TRUE(keys.empty());  // CHAP keys are consumed
    EXPECT_EQ(value(out, "CHAP_A"), "5");
    uint8_t id = uint8_t(std::stoi(value(out, "CHAP_I")));
    auto challenge = unhex(value(out, "CHAP_C"));
    ASSERT_EQ(challenge.size(), 16u);
    KeyValues answer = {{"CHAP_N", "alice"},
                        {"CHAP_R", IscsiChap::response(id, "s3cretpass1234", challenge.data(), challenge.size())}};
    KeyValues none;
    EXPECT_EQ(chap.handle(answer, none), IscsiChap::Step::Passed);
}

TEST(IscsiChap, WrongSecretNameAlgorithmOrMutualFail) {
    auto challenged = [](IscsiChap& chap, uint8_t& id, std::vector<uint8_t>& c) {
        KeyValues keys = {{"CHAP_A", "5"}}, out;
        chap.handle(keys, out);
        id = uint8_t(std::stoi(value(out, "CHAP_I")));
        c = unhex(value(out, "CHAP_C"));
    };
    uint8_t id;
    std::vector<uint8_t> c;
    {
        IscsiChap chap("alice", "s3cretpass1234");
        challenged(chap, id, c);
        KeyValues a = {{"CHAP_N", "alice"}, {"CHAP_R", IscsiChap::response(id, "wrong", c.data(), c.size())}}, o;
        EXPECT_EQ(chap.handle(a, o), IscsiChap::Step::Failed);
    }
    {
        IscsiChap chap("alice", "s3cretpass1234");
        challenged(chap, id, c);
        KeyValues a = {{"CHAP_N", "mallory"}, {"CHAP_R", IscsiChap::response(id, "s3cretpass1234", c.data(), c.size())}}, o;
        EXPECT_EQ(chap.handle(a, o), IscsiChap::Step::Failed);
    }
    {
        IscsiChap chap("alice", "s3cretpass1234");
        challenged(chap, id, c);
        KeyValues a = {{"CHAP_N", "alice"},
                       {"CHAP_R", IscsiChap::response(id, "s3cretpass1234", c.data(), c.size())},
                       {"CHAP_I", "9"},
                       {"CHAP_C", "0x0102"}},
                  o;
        EXPECT_EQ(chap.handle(a, o), IscsiChap::Step::Failed);  // mutual CHAP is not offered
    }
    IscsiChap sha("alice", "s3cretpass1234");
    KeyValues onlySha = {{"CHAP_A", "7"}}, o;
    EXPECT_EQ(sha.handle(onlySha, o), IscsiChap::Step::Failed);
}
