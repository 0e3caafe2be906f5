#include "zone/AdmaXor.h"

#include <atomic>
#include <chrono>
#include <cstdio>

#include "util/Trace.h"
#include "zone/XORPerfInfo.h"

namespace {

std::atomic<unsigned> gInjectedPasses{0};
std::atomic<unsigned> gInjectedFailures{0};

bool takeOne(std::atomic<unsigned>& counter) {
    unsigned n = counter.load(std::memory_order_relaxed);
    while (n > 0)
        if (counter.compare_exchange_weak(n, n - 1)) return true;
    return false;
}

bool takeInjectedFailure() {
    if (gInjectedFailures.load(std::memory_order_relaxed) == 0 || takeOne(gInjectedPasses)) return false;
    return takeOne(gInjectedFailures);
}

// The board side of one XOR: checks the request as the kernel would and runs it.
int boardXor(unsigned long sourceCount, const uint8_t* const* sources, uint8_t* dest, unsigned long length) {
    if (sourceCount == 0 || sourceCount > kXorMaxSources || dest == nullptr) return -1;
    for (unsigned long i = 0; i < sourceCount; ++i)
        if (sources[i] == nullptr) return -1;
    XorEngine::GetInstance().xorSources(sources, unsigned(sourceCount), dest, length);
    return 0;
}

class XorTimer {
public:
    XorTimer() : mStart(std::chrono::steady_clock::now()) {}
    ~XorTimer() {
        auto us = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - mStart);
        XORPerfInfo::GetInstance().timings.add(uint64_t(us.count()));
    }

private:
    std::chrono::steady_clock::time_point mStart;
};

void printSources(unsigned long count, const uint8_t* const* sources) {
    for (unsigned long i = 0; i < count && i < kXorMaxSources; ++i)
        tracef(coutTrace, "src[%u]=%08lx\n", unsigned(i), (unsigned long)uintptr_t(sources[i]));
}

}  // namespace

void admaXor(unsigned long sourceCount, uint8_t* const* sources, uint8_t* dest, unsigned long length,
             StatusCode& status) {
    XorTimer timer;
    int result = takeInjectedFailure() ? -1 : boardXor(sourceCount, sources, dest, length);
    if (result >= 0) {
        status = StatusCode::Success;
        return;
    }
    status = StatusCode::InternalError;
    tracef(coutTrace, "ADMA XOR failed. sourceCount=%lu, length=%lu, dest=%08lx\n", sourceCount, length,
           (unsigned long)uintptr_t(dest));
    printSources(sourceCount, sources);
}

void chainedXor(unsigned long elements, const unsigned long* sourceCounts, const XorSourceRow* sourceRows,
                uint8_t* const* dests, const unsigned long* lengths, StatusCode& status) {
    XorTimer timer;
    int result = elements <= kXorChainElements && !takeInjectedFailure() ? 0 : -1;
    for (unsigned long i = 0; i < elements && result >= 0; ++i)
        result = boardXor(sourceCounts[i], sourceRows[i], dests[i], lengths[i]);
    if (result >= 0) {
        status = StatusCode::Success;
        return;
    }
    status = StatusCode::InternalError;
    tracef(coutTrace, "Chained XOR failed. elements=%lu\n", elements);
    for (unsigned long i = 0; i < elements && i < kXorChainElements; ++i) {
        tracef(coutTrace, "sourceCount=%lu, length=%lu, dest=%08lx\n", sourceCounts[i], lengths[i],
               (unsigned long)uintptr_t(dests[i]));
        printSources(sourceCounts[i], sourceRows[i]);
    }
}

void injectXorFailures(unsigned count, unsigned passFirst) {
    gInjectedPasses = passFirst;
    gInjectedFailures = count;
}
