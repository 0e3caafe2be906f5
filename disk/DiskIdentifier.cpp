#include "disk/DiskIdentifier.h"

#include <algorithm>

namespace {
void copyField(char* dst, size_t width, const char* src) {
    std::memset(dst, 0, width);
    if (src) std::memcpy(dst, src, std::min(width, strnlen(src, width)));
}
}  // namespace

void DiskIdentifier::Initialise(const char* model, const char* revision, const char* serial) {
    copyField(mModel, kModelLength, model);
    copyField(mRevision, kRevisionLength, revision);
    copyField(mSerial, kSerialLength, serial);
}

bool DiskIdentifier::isZero() const {
    const auto* p = reinterpret_cast<const uint8_t*>(this);
    return std::all_of(p, p + sizeof *this, [](uint8_t b) { return b == 0; });
}

std::ostream& operator<<(std::ostream& os, const DiskIdentifier& id) {
    return os << id.GetModelString() << " " << id.GetRevisionString() << " " << id.GetSerialNumString();
}
