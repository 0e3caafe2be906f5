#pragma once
// DiskIdentifier: the 68-byte identity of a physical disk (model 40, firmware
// revision 8, serial number 20 bytes), each field space- or NUL-padded as the
// drive gave it, never NUL-terminated. It is stored inside on-disk records, so
// its layout is a format; two identities are equal when all 68 bytes are.
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>

#pragma pack(push, 1)
class DiskIdentifier {
public:
    static constexpr size_t kModelLength = 40, kRevisionLength = 8, kSerialLength = 20;

    DiskIdentifier() { Reset(); }
    void Reset() { std::memset(this, 0, sizeof *this); }
    // Copies with truncation to the field widths; the unused tail of each field is zero.
    void Initialise(const char* model, const char* revision, const char* serial);

    std::string GetModelString() const { return field(mModel, kModelLength); }
    std::string GetRevisionString() const { return field(mRevision, kRevisionLength); }
    std::string GetSerialNumString() const { return field(mSerial, kSerialLength); }

    bool operator==(const DiskIdentifier& o) const { return std::memcmp(this, &o, sizeof *this) == 0; }
    bool operator!=(const DiskIdentifier& o) const { return !(*this == o); }
    bool isZero() const;

private:
    static std::string field(const char* p, size_t n) { return std::string(p, strnlen(p, n)); }
    char mModel[kModelLength];
    char mRevision[kRevisionLength];
    char mSerial[kSerialLength];
};
#pragma pack(pop)
static_assert(sizeof(DiskIdentifier) == 68);

std::ostream& operator<<(std::ostream& os, const DiskIdentifier& id);
