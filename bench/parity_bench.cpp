// The parity engine's rates on one core, each beside memcpy on the same
// buffers in the same run:
//   parity.xor_n<N>          XORWindow of N sources (N = 2..9) into a parity column
//   parity.xor_single        the lowest of those ratios: what single parity can count on
//   parity.dual_drstripe<w>  XOR2DWindow (horizontal and diagonal) of a DRStripe<w> code
//   parity.dual              the lowest of those ratios
// Rates are in GB/s of Zone data protected: N x column bytes for the XOR, data
// columns x column bytes for dual parity; memcpy counts the bytes it copies.
// Columns are 1 MiB (a recovery batch) and reach the engine as windows of
// 4 KiB extents, as the write path deals a line out to its columns.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "zone/DRStripeCode.h"
#include "zone/XORWindow.h"
#include "zone/XorEngine.h"

namespace {

constexpr uint32_t kColumn = 1 << 20;
constexpr uint32_t kExtent = 4096;

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Seconds per call over one round of repeated calls.
template <class Fn>
double round(Fn&& fn) {
    const double start = now();
    unsigned calls = 0;
    do {
        fn();
        ++calls;
    } while (now() - start < 0.03);
    return (now() - start) / calls;
}

// The best time of the operation and of its memcpy reference, measured in
// alternating rounds so that both see the same machine.
struct Pair {
    double op, copy;
};
template <class Op, class Copy>
Pair bestPair(Op&& op, Copy&& copy) {
    Pair best{1e30, 1e30};
    for (int r = 0; r < 9; ++r) {
        best.copy = std::min(best.copy, round(copy));
        best.op = std::min(best.op, round(op));
    }
    return best;
}

uint8_t* alignedBuffer(uint32_t length, int fill) {
    void* p = nullptr;
    if (posix_memalign(&p, 64, length) != 0) std::abort();
    std::memset(p, fill, length);
    return static_cast<uint8_t*>(p);
}

ExtentList asExtents(uint8_t* data, uint32_t length) {
    ExtentList list;
    for (uint32_t pos = 0; pos < length; pos += kExtent) list.add(data + pos, std::min(kExtent, length - pos));
    return list;
}

void figure(const char* name, double value, double reference) {
    std::printf("figure parity.%s %.2f GB/s ref memcpy %.2f GB/s ratio %.3f\n", name, value, reference,
                value / reference);
}

}  // namespace

int main() {
    std::vector<uint8_t*> buffers;
    for (int b = 0; b < 12; ++b) buffers.push_back(alignedBuffer(kColumn, b * 29 + 1));
    std::vector<ExtentList> columns;
    for (uint8_t* b : buffers) columns.push_back(asExtents(b, kColumn));
    const ExtentList dest(buffers[0], kColumn), second(buffers[1], kColumn);
    uint8_t* zeroMemory = alignedBuffer(kColumn, 0);
    const ExtentList zeros = asExtents(zeroMemory, kColumn);
    setZeroSourceMemory(zeroMemory, kColumn);

    std::printf("# XOR engine kernel: %s; columns of %u KiB in %u-byte extents\n",
                XorEngine::kernelName(XorEngine::GetInstance().kernel()), kColumn / 1024, kExtent);
    auto copyColumn = [&] { std::memcpy(buffers[0], buffers[11], kColumn); };

    StatusCode status;
    double worstSingle = 1e30, worstSingleRate = 0, worstSingleCopy = 1;
    for (unsigned n = 2; n <= 9; ++n) {
        const Pair t = bestPair([&] { XORWindow(dest, &columns[2], n, status); }, copyColumn);
        const double rate = double(n) * kColumn / t.op / 1e9, copy = kColumn / t.copy / 1e9;
        char name[32];
        std::snprintf(name, sizeof name, "xor_n%u", n);
        figure(name, rate, copy);
        if (rate / copy < worstSingle) worstSingle = rate / copy, worstSingleRate = rate, worstSingleCopy = copy;
    }
    figure("xor_single", worstSingleRate, worstSingleCopy);

    double worstDual = 1e30, worstDualRate = 0, worstDualCopy = 1;
    for (unsigned width : kDRStripeWidths) {
        DRStripeCode code;
        DRStripeCode::forWidth(width, code);
        const uint32_t length = kColumn / code.columnBlockSize() * code.columnBlockSize();
        // Zero columns are views of the zero memory, as the Zone layer gives them.
        std::vector<ExtentList> sources;
        for (unsigned c = 0; c < code.sources(); ++c)
            sources.push_back(c < code.zeroColumns ? zeros.slice(0, length) : columns[2 + c].slice(0, length));
        const ExtentList h = dest.slice(0, length), d = second.slice(0, length);
        const Pair t = bestPair(
            [&] { XOR2DWindow(h, d, sources.data(), code.sources(), DRStripeCode::kBlockSize, status); }, copyColumn);
        const double rate = double(code.dataColumns) * length / t.op / 1e9, copy = kColumn / t.copy / 1e9;
        char name[32];
        std::snprintf(name, sizeof name, "dual_drstripe%u", width);
        figure(name, rate, copy);
        if (rate / copy < worstDual) worstDual = rate / copy, worstDualRate = rate, worstDualCopy = copy;
    }
    figure("dual", worstDualRate, worstDualCopy);
    if (!status.ok()) std::printf("# XOR failed: %s\n", status.Dump().c_str());
    setZeroSourceMemory(nullptr, 0);
    for (uint8_t* b : buffers) std::free(b);
    std::free(zeroMemory);
    return 0;
}
