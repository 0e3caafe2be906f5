// XORPerfInfo and the console commands of the parity engine: `xorPerf`
// measures the XOR rates, `testDRRecovery` rebuilds every combination of lost
// columns of every DRStripe code; both return non-zero on a failure. They live
// beside XORPerfInfo, which every XOR request uses, so that any program with
// the parity engine in it has its commands too.
#include <chrono>
#include <cstring>
#include <ostream>
#include <vector>

#include "util/ConsoleCommand.h"
#include "zone/AdmaXor.h"
#include "zone/DRRecovery.h"
#include "zone/XORPerfInfo.h"
#include "zone/XORWindow.h"

XORPerfInfo& XORPerfInfo::GetInstance() {
    static XORPerfInfo info;
    return info;
}

void XORPerfInfo::Dump(std::ostream& out) const {
    out << "XOR timings:\n";
    timings.Dump(out);
}

namespace {

int testDRRecoveryCommand(int argc, char** argv, std::ostream& out) {
    long long lines = 2;
    if (argc > 2 || (argc == 2 && (!parseConsoleNumber(argv[1], lines) || lines < 1 || lines > 16))) {
        out << "usage: testDRRecovery [superstripe lines, 1 to 16]\n";
        return 1;
    }
    unsigned total = 0, failed = 0;
    for (unsigned width : kDRStripeWidths) {
        DRStripeCode code;
        DRStripeCode::forWidth(width, code);
        unsigned combinations = 0;
        unsigned failures = testDRRecoveryCombinations(code, uint32_t(lines), 0x5eed + width, combinations);
        out << "DRStripe" << width << ": " << combinations << " combinations of lost columns, " << failures
            << " failed\n";
        total += combinations;
        failed += failures;
    }
    out << "testDRRecovery " << (failed ? "FAILED" : "PASSED") << ": " << total << " combinations, " << failed
        << " failed\n";
    return failed ? 1 : 0;
}

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Runs fn until about `seconds` have passed; returns the seconds per run.
template <class Fn>
double timeRuns(double seconds, Fn&& fn) {
    auto start = std::chrono::steady_clock::now();
    unsigned runs = 0;
    do {
        fn();
        ++runs;
    } while (secondsSince(start) < seconds);
    return secondsSince(start) / runs;
}

int xorPerfCommand(int argc, char** argv, std::ostream& out) {
    long long kib = 1024;
    if (argc > 2 || (argc == 2 && (!parseConsoleNumber(argv[1], kib) || kib < 4 || kib > 16384 || kib % 4))) {
        out << "usage: xorPerf [KiB per buffer, a multiple of 4 from 4 to 16384]\n";
        return 1;
    }
    const uint32_t length = uint32_t(kib) * 1024;
    const double seconds = 0.05;
    std::vector<std::vector<uint8_t>> buffers(kXorMaxSources + 1, std::vector<uint8_t>(length));
    for (unsigned b = 0; b < buffers.size(); ++b) std::memset(buffers[b].data(), int(b * 37 + 1), length);
    std::vector<ExtentList> windows;
    for (auto& b : buffers) windows.emplace_back(b.data(), length);

    out << "XOR engine: " << XorEngine::kernelName(XorEngine::GetInstance().kernel()) << ", " << kib
        << " KiB per buffer\n";
    double copy = timeRuns(seconds, [&] { std::memcpy(buffers[0].data(), buffers[1].data(), length); });
    out << "memcpy: " << length / copy / 1e9 << " GB/s\n";
    StatusCode status;  // the first failure, kept over later runs
    auto keepFailure = [&status](const StatusCode& result) {
        if (status.ok()) status = result;
    };
    for (unsigned n = 2; n <= 9 && status.ok(); ++n) {
        double t = timeRuns(seconds, [&] {
            StatusCode result;
            XORWindow(windows[0], &windows[1], n, result);
            keepFailure(result);
        });
        out << "XORWindow of " << n << " sources: " << double(n) * length / t / 1e9 << " GB/s of sources\n";
    }
    for (unsigned width : kDRStripeWidths) {
        if (!status.ok()) break;
        DRStripeCode code;
        DRStripeCode::forWidth(width, code);
        const uint32_t columnLength = length / code.columnBlockSize() * code.columnBlockSize();
        if (columnLength == 0) continue;
        std::vector<ExtentList> sources;
        for (unsigned c = 0; c < code.sources(); ++c) sources.push_back(windows[c + 2].slice(0, columnLength));
        double t = timeRuns(seconds, [&] {
            StatusCode result;
            XOR2DWindow(windows[0].slice(0, columnLength), windows[1].slice(0, columnLength), sources.data(),
                        code.sources(), DRStripeCode::kBlockSize, result);
            keepFailure(result);
        });
        out << "XOR2DWindow DRStripe" << width << ": " << double(code.dataColumns) * columnLength / t / 1e9
            << " GB/s of data\n";
    }
    XORPerfInfo::GetInstance().Dump(out);
    if (!status.ok()) out << "xorPerf: XOR failed - " << status.Dump() << "\n";
    return status.ok() ? 0 : 1;
}

ConsoleCommand testDRRecoveryCmd("testDRRecovery", "Test the DRRecovery algorithm for all combinations of disk",
                                 testDRRecoveryCommand);
ConsoleCommand xorPerfCmd("xorPerf", "Measures XOR performance with multiple different parameters", xorPerfCommand);

}  // namespace
