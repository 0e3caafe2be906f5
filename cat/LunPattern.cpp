#include "cat/LunPattern.h"

#include <vector>

namespace LunPattern {
void fill(DataWindow& window, uint32_t seed, uint64_t lba, uint32_t sectors) {
    std::vector<uint32_t> words(size_t(sectors) * 128);
    for (uint32_t s = 0; s < sectors; ++s)
        for (uint32_t i = 0; i < 128; ++i) words[size_t(s) * 128 + i] = word(seed, lba + s, i);
    DataBuffer b{uint32_t(words.size() * 4), reinterpret_cast<unsigned char*>(words.data())};
    window.Write(b, 0, b.length);
}

bool matches(const DataWindow& window, uint32_t seed, uint64_t lba, uint32_t sectors, std::ostream* out) {
    std::vector<uint32_t> words(size_t(sectors) * 128);
    DataBuffer b{uint32_t(words.size() * 4), reinterpret_cast<unsigned char*>(words.data())};
    window.Read(b, 0, b.length);
    for (uint32_t s = 0; s < sectors; ++s)
        for (uint32_t i = 0; i < 128; ++i) {
            const uint32_t want = word(seed, lba + s, i);
            const uint32_t got = words[size_t(s) * 128 + i];
            if (got == want) continue;
            if (out)
                *out << "  mismatch at LBA 0x" << std::hex << lba + s << " word " << std::dec << i << ": read 0x"
                     << std::hex << got << ", expected 0x" << want << std::dec << "\n";
            return false;
        }
    return true;
}
}  // namespace LunPattern
