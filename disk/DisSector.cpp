#include "disk/DisSector.h"

#include <cstring>

#include "util/Crc.h"
#include "util/Endian.h"

using namespace DisLayout;

std::array<DisRange, 3> disRangesFor(uint64_t capacity64) {
    uint32_t capacity = packCapacity(capacity64);
    uint32_t middle = (capacity / 0xD200) * 0x6900;
    return {DisRange{0, kRangeSectors}, DisRange{middle, middle + kRangeSectors},
            DisRange{capacity - kRangeSectors, capacity}};
}

namespace {
void putText(uint8_t* p, const std::string& text, size_t room) {
    size_t n = std::min(text.size(), room - 1);
    std::memcpy(p, text.data(), n);
}
std::string getText(const uint8_t* p, size_t room) {
    size_t n = strnlen(reinterpret_cast<const char*>(p), room);
    return std::string(reinterpret_cast<const char*>(p), n);
}
}  // namespace

void DisSector::encode(uint8_t* s) {
    std::memset(s, 0, kSectorSize);
    putLE32(s + oSig0, sig0);
    putLE32(s + oVersion, version);
    putLE32(s + oLayout, layout);
    putLE32(s + oReserved, reserved);
    putLE32(s + oPackId, packId[0]);
    putLE32(s + oPackId + 4, packId[1]);
    putLE32(s + oGeneration, generation);
    putLE32(s + oLogicalDisks, logicalDisks);
    putLE32(s + oCriticalDisks, critcalDisks);
    putText(s + oName, name, kNameBytes);
    putLE16(s + oLdNumber, ldNumber);
    putLE32(s + oLdBitmap, ldBitmap);
    putLE32(s + oFlags, flags);
    putLE32(s + oIteration, iteration);
    putLE32(s + oRmLba0, rmLba[0]);
    putLE32(s + oRmLba1, rmLba[1]);
    putLE32(s + oSig1, sig1);
    checksum = GetCRC(s, oChecksum);
    putLE32(s + oChecksum, checksum);
    putLE32(s + oSig3, sig3);
    putLE32(s + oExtVersion, extVersion);
    extChecksum = GetCRC(s + oSig3, oExtChecksum - oSig3);
    putLE32(s + oExtChecksum, extChecksum);
    putText(s + oExpungeReason, expungeReason, kReasonBytes);
}

DisSector::Verdict DisSector::decode(const uint8_t* s) {
    sig0 = getLE32(s + oSig0);
    version = getLE32(s + oVersion);
    layout = getLE32(s + oLayout);
    reserved = getLE32(s + oReserved);
    packId[0] = getLE32(s + oPackId);
    packId[1] = getLE32(s + oPackId + 4);
    generation = getLE32(s + oGeneration);
    logicalDisks = getLE32(s + oLogicalDisks);
    critcalDisks = getLE32(s + oCriticalDisks);
    name = getText(s + oName, kNameBytes);
    ldNumber = getLE16(s + oLdNumber);
    ldBitmap = getLE32(s + oLdBitmap);
    flags = getLE32(s + oFlags);
    iteration = getLE32(s + oIteration);
    rmLba[0] = getLE32(s + oRmLba0);
    rmLba[1] = getLE32(s + oRmLba1);
    sig1 = getLE32(s + oSig1);
    checksum = getLE32(s + oChecksum);
    if (version != kVersion || sig0 != kSig0 || sig1 != kSig1) return Verdict::BadSanity;
    if (GetCRC(s, oChecksum) != checksum) return Verdict::BadChecksum;
    if (!hasExtension()) {
        sig3 = kSig3;
        extVersion = 1;
        extChecksum = 0;
        expungeReason = (flags & DIS_EXPUNGED) ? "UNKNOWN REASON - OLD FIRMWARE" : "NOT EXPUNGED";
        return Verdict::Good;
    }
    sig3 = getLE32(s + oSig3);
    extVersion = getLE32(s + oExtVersion);
    extChecksum = getLE32(s + oExtChecksum);
    expungeReason = getText(s + oExpungeReason, kReasonBytes);
    if (sig3 != kSig3) return Verdict::BadExtensionSignature;
    if (GetCRC(s + oSig3, oExtChecksum - oSig3) != extChecksum) return Verdict::BadExtensionChecksum;
    return Verdict::Good;
}
