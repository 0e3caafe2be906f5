#pragma once
// XorEngine: the processor XOR that stands in for the board's XOR hardware.
//
// It owns nothing but the choice of kernel, made once from the processor's
// features (AVX2, else SSE2, else plain 64-bit words). A call keeps all its
// state on the caller's stack, so any number of threads may XOR at once and
// nothing here is locked. dest may be one of the sources (the accumulate form,
// dest ^= ...), but no source may otherwise overlap dest.
#include <cstddef>
#include <cstdint>

// The most sources one XOR takes: the widest dual-parity code has 11 columns
// (10 sources and the horizontal parity), and the accumulate forms add dest.
constexpr unsigned kXorMaxSources = 12;

class XorEngine {
public:
    enum class Kernel { Portable = 0, Sse2 = 1, Avx2 = 2 };

    static XorEngine& GetInstance();

    // dest = sources[0] ^ ... ^ sources[count - 1], over length bytes; any length.
    // count is 1 to kXorMaxSources.
    void xorSources(const uint8_t* const* sources, unsigned count, uint8_t* dest, size_t length) const {
        dispatch(mKernel, sources, count, dest, length);
    }

    Kernel kernel() const { return mKernel; }
    static const char* kernelName(Kernel kernel);
    // Whether this processor can run a kernel (the portable one always can).
    static bool supported(Kernel kernel);
    // The same XOR with a chosen kernel, for the tests and the benchmark.
    static void run(Kernel kernel, const uint8_t* const* sources, unsigned count, uint8_t* dest, size_t length);

private:
    XorEngine();
    static void dispatch(Kernel kernel, const uint8_t* const* sources, unsigned count, uint8_t* dest, size_t length);
    Kernel mKernel;
};
