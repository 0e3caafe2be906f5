#include "platform/drive/DiskFault.h"

#include <cstdlib>
#include <sstream>

namespace {

struct KindName {
    DiskFault::Kind kind;
    const char* name;
};
constexpr KindName kKinds[] = {
    {DiskFault::Kind::Media, "media"},
    {DiskFault::Kind::Recovered, "recovered"},
    {DiskFault::Kind::RecoveredChannel, "recoveredchannel"},
    {DiskFault::Kind::Channel, "channel"},
    {DiskFault::Kind::AccessTimeout, "accesstimeout"},
    {DiskFault::Kind::ChannelTimeout, "channeltimeout"},
    {DiskFault::Kind::NotPresent, "notpresent"},
    {DiskFault::Kind::StartFailure, "startfailure"},
    {DiskFault::Kind::SizeZero, "sizezero"},
    {DiskFault::Kind::Latency, "latency"},
};

bool parseUnsigned(const std::string& text, uint64_t& out) {
    if (text.empty()) return false;
    char* end = nullptr;
    out = std::strtoull(text.c_str(), &end, 0);
    return end && *end == '\0';
}

const char* directionName(DiskFault::Direction d) {
    return d == DiskFault::Direction::Read ? "read" : d == DiskFault::Direction::Write ? "write" : "any";
}

}  // namespace

bool DiskFault::matches(bool write, uint64_t lba, uint64_t sectors) const {
    if (direction == Direction::Read && write) return false;
    if (direction == Direction::Write && !write) return false;
    uint64_t end = sectors ? lba + sectors - 1 : lba;
    return lba <= lastLba && end >= firstLba;
}

const char* DiskFault::kindName(Kind k) {
    for (auto& e : kKinds)
        if (e.kind == k) return e.name;
    return "?";
}

std::optional<DiskFault> DiskFault::parse(const std::vector<std::string>& words, std::string& error) {
    if (words.empty()) {
        error = "a fault needs a kind";
        return std::nullopt;
    }
    DiskFault f;
    bool known = false;
    for (auto& e : kKinds)
        if (words[0] == e.name) {
            f.kind = e.kind;
            known = true;
        }
    if (!known) {
        error = "unknown fault kind '" + words[0] + "'";
        return std::nullopt;
    }
    if (f.kind == Kind::SizeZero) f.value = 1;
    for (size_t i = 1; i < words.size(); ++i) {
        const std::string& w = words[i];
        uint64_t n = 0;
        if (w == "read") f.direction = Direction::Read;
        else if (w == "write") f.direction = Direction::Write;
        else if (w == "any") f.direction = Direction::Any;
        else if (w == "once") f.remaining = 1;
        else if (w == "always") f.remaining = -1;
        else if (w.rfind("times=", 0) == 0 && parseUnsigned(w.substr(6), n) && n > 0 && n < 1u << 30)
            f.remaining = int(n);
        else if (w.rfind("ms=", 0) == 0 && parseUnsigned(w.substr(3), n) && n < 1u << 31) f.value = uint32_t(n);
        else if (w.rfind("queries=", 0) == 0 && parseUnsigned(w.substr(8), n) && n < 1u << 31) f.value = uint32_t(n);
        else if (w.rfind("lba=", 0) == 0) {
            std::string range = w.substr(4);
            size_t dash = range.find('-');
            uint64_t a = 0, b = 0;
            if (dash == std::string::npos) {
                if (!parseUnsigned(range, a)) {
                    error = "bad LBA '" + range + "'";
                    return std::nullopt;
                }
                b = a;
            } else if (!parseUnsigned(range.substr(0, dash), a) || !parseUnsigned(range.substr(dash + 1), b) || b < a) {
                error = "bad LBA range '" + range + "'";
                return std::nullopt;
            }
            f.firstLba = a;
            f.lastLba = b;
        } else {
            error = "unknown fault word '" + w + "'";
            return std::nullopt;
        }
    }
    return f;
}

std::string DiskFault::describe() const {
    std::ostringstream os;
    os << kindName(kind) << " " << directionName(direction);
    if (firstLba != 0 || lastLba != UINT64_MAX) os << " lba=" << firstLba << "-" << lastLba;
    os << (remaining < 0 ? " always" : " times=" + std::to_string(remaining));
    if (kind == Kind::Latency) os << " ms=" << value;
    if (kind == Kind::SizeZero) os << " queries=" << value;
    return os.str();
}

nlohmann::json DiskFault::toJson() const {
    return {{"kind", kindName(kind)}, {"direction", directionName(direction)}, {"firstLba", firstLba},
            {"lastLba", lastLba},     {"remaining", remaining},                 {"value", value}};
}

std::optional<DiskFault> DiskFault::fromJson(const nlohmann::json& j) {
    if (!j.is_object()) return std::nullopt;
    std::string error;
    auto f = parse({j.value("kind", std::string()), j.value("direction", std::string("any"))}, error);
    if (!f) return std::nullopt;
    f->firstLba = j.value("firstLba", uint64_t(0));
    f->lastLba = j.value("lastLba", UINT64_MAX);
    f->remaining = j.value("remaining", -1);
    f->value = j.value("value", 0u);
    return f;
}
