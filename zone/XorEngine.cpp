#include "zone/XorEngine.h"

#include <array>
#include <cstring>
#include <utility>

#include "util/Assert.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define ESA_XOR_X86 1
#endif

namespace {

// Each kernel is instantiated per source count so that the loop over the
// sources unrolls; the running value stays in registers and dest is stored
// once per chunk, after every source of that chunk has been loaded, which is
// what makes dest == sources[k] safe.

template <unsigned N>
void xorPortable(const uint8_t* const* src, uint8_t* dest, size_t length, size_t pos) {
    for (; pos + 8 <= length; pos += 8) {
        uint64_t acc, v;
        std::memcpy(&acc, src[0] + pos, 8);
        for (unsigned s = 1; s < N; ++s) {
            std::memcpy(&v, src[s] + pos, 8);
            acc ^= v;
        }
        std::memcpy(dest + pos, &acc, 8);
    }
    for (; pos < length; ++pos) {
        uint8_t acc = src[0][pos];
        for (unsigned s = 1; s < N; ++s) acc ^= src[s][pos];
        dest[pos] = acc;
    }
}

#ifdef ESA_XOR_X86
template <unsigned N>
void xorSse2(const uint8_t* const* src, uint8_t* dest, size_t length) {
    size_t pos = 0;
    for (; pos + 64 <= length; pos += 64) {
        __m128i a0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src[0] + pos));
        __m128i a1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src[0] + pos + 16));
        __m128i a2 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src[0] + pos + 32));
        __m128i a3 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src[0] + pos + 48));
        for (unsigned s = 1; s < N; ++s) {
            const uint8_t* p = src[s] + pos;
            a0 = _mm_xor_si128(a0, _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
            a1 = _mm_xor_si128(a1, _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16)));
            a2 = _mm_xor_si128(a2, _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 32)));
            a3 = _mm_xor_si128(a3, _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 48)));
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dest + pos), a0);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dest + pos + 16), a1);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dest + pos + 32), a2);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dest + pos + 48), a3);
    }
    xorPortable<N>(src, dest, length, pos);
}

template <unsigned N>
__attribute__((target("avx2"))) void xorAvx2(const uint8_t* const* src, uint8_t* dest, size_t length) {
    size_t pos = 0;
    for (; pos + 128 <= length; pos += 128) {
        __m256i a0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src[0] + pos));
        __m256i a1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src[0] + pos + 32));
        __m256i a2 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src[0] + pos + 64));
        __m256i a3 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src[0] + pos + 96));
        for (unsigned s = 1; s < N; ++s) {
            const uint8_t* p = src[s] + pos;
            a0 = _mm256_xor_si256(a0, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)));
            a1 = _mm256_xor_si256(a1, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 32)));
            a2 = _mm256_xor_si256(a2, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 64)));
            a3 = _mm256_xor_si256(a3, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 96)));
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dest + pos), a0);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dest + pos + 32), a1);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dest + pos + 64), a2);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dest + pos + 96), a3);
    }
    for (; pos + 32 <= length; pos += 32) {
        __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src[0] + pos));
        for (unsigned s = 1; s < N; ++s)
            a = _mm256_xor_si256(a, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src[s] + pos)));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dest + pos), a);
    }
    xorPortable<N>(src, dest, length, pos);
}
#endif

using KernelFn = void (*)(const uint8_t* const*, uint8_t*, size_t);

template <unsigned N>
void portableEntry(const uint8_t* const* src, uint8_t* dest, size_t length) {
    xorPortable<N>(src, dest, length, 0);
}

// Table of one kernel family over the source counts 1..kXorMaxSources.
template <template <unsigned> class Family, size_t... I>
constexpr auto makeTable(std::index_sequence<I...>) {
    return std::array<KernelFn, sizeof...(I)>{Family<I + 1>::fn...};
}

template <unsigned N>
struct PortableFamily {
    static constexpr KernelFn fn = &portableEntry<N>;
};
#ifdef ESA_XOR_X86
template <unsigned N>
struct Sse2Family {
    static constexpr KernelFn fn = &xorSse2<N>;
};
template <unsigned N>
struct Avx2Family {
    static constexpr KernelFn fn = &xorAvx2<N>;
};
#endif

constexpr auto kPortable = makeTable<PortableFamily>(std::make_index_sequence<kXorMaxSources>());
#ifdef ESA_XOR_X86
constexpr auto kSse2 = makeTable<Sse2Family>(std::make_index_sequence<kXorMaxSources>());
constexpr auto kAvx2 = makeTable<Avx2Family>(std::make_index_sequence<kXorMaxSources>());
#endif

}  // namespace

XorEngine& XorEngine::GetInstance() {
    static XorEngine engine;
    return engine;
}

XorEngine::XorEngine()
    : mKernel(supported(Kernel::Avx2) ? Kernel::Avx2 : supported(Kernel::Sse2) ? Kernel::Sse2 : Kernel::Portable) {}

const char* XorEngine::kernelName(Kernel kernel) {
    switch (kernel) {
    case Kernel::Avx2: return "avx2";
    case Kernel::Sse2: return "sse2";
    case Kernel::Portable: return "portable";
    }
    return "?";
}

bool XorEngine::supported(Kernel kernel) {
#ifdef ESA_XOR_X86
    __builtin_cpu_init();  // safe to repeat; needed if asked before the C library's constructors ran
#endif
    switch (kernel) {
    case Kernel::Portable: return true;
#ifdef ESA_XOR_X86
    case Kernel::Sse2: return __builtin_cpu_supports("sse2");
    case Kernel::Avx2: return __builtin_cpu_supports("avx2");
#else
    default: return false;
#endif
    }
    return false;
}

void XorEngine::run(Kernel kernel, const uint8_t* const* sources, unsigned count, uint8_t* dest, size_t length) {
    ESA_ASSERT(supported(kernel));
    dispatch(kernel, sources, count, dest, length);
}

void XorEngine::dispatch(Kernel kernel, const uint8_t* const* sources, unsigned count, uint8_t* dest,
                         size_t length) {
    ESA_ASSERT(count >= 1 && count <= kXorMaxSources);
    if (length == 0) return;
    switch (kernel) {
#ifdef ESA_XOR_X86
    case Kernel::Avx2: kAvx2[count - 1](sources, dest, length); return;
    case Kernel::Sse2: kSse2[count - 1](sources, dest, length); return;
#endif
    default: kPortable[count - 1](sources, dest, length); return;
    }
}
