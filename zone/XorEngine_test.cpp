// The processor XOR kernels against a byte loop: every kernel this processor
// runs, every source count, lengths around the kernels' unrolled steps, and
// addresses at every alignment.
#include <gtest/gtest.h>

#include "zone/ParityTestSupport.h"
#include "zone/XorEngine.h"

namespace {

std::vector<XorEngine::Kernel> kernelsHere() {
    std::vector<XorEngine::Kernel> out;
    for (auto k : {XorEngine::Kernel::Portable, XorEngine::Kernel::Sse2, XorEngine::Kernel::Avx2})
        if (XorEngine::supported(k)) out.push_back(k);
    return out;
}

TEST(XorEngine, EveryKernelMatchesAByteLoop) {
    std::mt19937 rng(1);
    const size_t lengths[] = {0, 1, 3, 4, 31, 32, 33, 63, 64, 65, 127, 128, 129, 200, 4096, 4097, 10000};
    for (auto kernel : kernelsHere()) {
        for (unsigned count = 1; count <= kXorMaxSources; ++count) {
            for (size_t length : lengths) {
                const unsigned misalign = unsigned(rng() % 32);
                std::vector<std::vector<uint8_t>> src(count);
                std::vector<const uint8_t*> ptrs;
                for (auto& s : src) {
                    s = paritytest::randomBytes(length + 64, rng);
                    ptrs.push_back(s.data() + (rng() % 32));
                }
                std::vector<uint8_t> dest(length + 64, 0xEE), expect(dest);
                for (size_t i = 0; i < length; ++i) {
                    uint8_t v = 0;
                    for (unsigned s = 0; s < count; ++s) v ^= ptrs[s][i];
                    expect[misalign + i] = v;
                }
                XorEngine::run(kernel, ptrs.data(), count, dest.data() + misalign, length);
                ASSERT_EQ(dest, expect) << XorEngine::kernelName(kernel) << " count " << count << " length "
                                        << length;
            }
        }
    }
}

TEST(XorEngine, DestMayBeOneOfTheSources) {
    std::mt19937 rng(2);
    for (auto kernel : kernelsHere()) {
        auto a = paritytest::randomBytes(1000, rng), b = paritytest::randomBytes(1000, rng);
        auto c = paritytest::randomBytes(1000, rng);
        std::vector<uint8_t> expect(1000);
        for (size_t i = 0; i < 1000; ++i) expect[i] = a[i] ^ b[i] ^ c[i];
        const uint8_t* sources[] = {b.data(), a.data(), c.data()};
        XorEngine::run(kernel, sources, 3, a.data(), a.size());
        EXPECT_EQ(a, expect) << XorEngine::kernelName(kernel);
    }
}

TEST(XorEngine, ChoosesTheWidestKernelThisProcessorRuns) {
    auto kernels = kernelsHere();
    EXPECT_EQ(XorEngine::GetInstance().kernel(), kernels.back());
}

}  // namespace
