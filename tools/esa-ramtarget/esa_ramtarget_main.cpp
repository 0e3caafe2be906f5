// esa-ramtarget: the appliance's iSCSI target serving memory-backed LUNs.
// It tests and measures the protocol layer without the rest of the system:
//   esa-ramtarget [--portal ADDR] [--luns N] [--size BYTES] [--target-name IQN] [--chap USER:SECRET] [--direct]
// SIZE takes k, m, g suffixes (powers of 1024). Data commands travel as the
// system will receive them: through the multi-issue rings of "/usbCmdResp",
// write data in "/SHJ1", read data described by InterCoreSGLs, to a responder
// that plays the system's part. --direct serves the LUNs straight behind the
// protocol layer instead (the backend interface without the rings). The LUNs
// of the ring path lie in "/readbuffer", whose offsets are 32 bits: all LUNs
// together stay below 4 GiB. It runs until SIGINT/SIGTERM.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "platform/target/CommandQueueDriver.h"
#include "tools/common/ByteSize.h"
#include "platform/target/IscsiTarget.h"
#include "platform/target/MultiIssueDriver.h"
#include "platform/target/RamRingResponder.h"
#include "platform/target/RamBackend.h"
#include "platform/target/TargetLunTable.h"

namespace {

int usage() {
    std::fprintf(stderr,
                 "usage: esa-ramtarget [--portal HOST:PORT] [--luns N] [--size BYTES] [--target-name IQN]\n"
                 "                     [--chap USER:SECRET] [--direct]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    IscsiTargetConfig config = IscsiTargetConfig::fromEnvironment();
    uint32_t luns = 1;
    uint64_t size = 256ull << 20;
    bool direct = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--direct") {
            direct = true;
            continue;
        }
        if (i + 1 >= argc) return usage();
        const char* v = argv[++i];
        if (a == "--portal") {
            config.portal = v;
        } else if (a == "--luns") {
            luns = uint32_t(std::atoi(v));
            if (luns < 1 || luns > TargetLunTable::kMaxLuns) return usage();
        } else if (a == "--size") {
            if (!parseByteSize(v, size) || size < 4096) return usage();
        } else if (a == "--target-name") {
            config.targetName = v;
        } else if (a == "--chap") {
            std::string s = v;
            size_t colon = s.find(':');
            if (colon == std::string::npos || colon == 0 || colon + 1 == s.size()) return usage();
            config.chapUser = s.substr(0, colon);
            config.chapSecret = s.substr(colon + 1);
        } else {
            return usage();
        }
    }
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);

    if (!direct && uint64_t(luns) * size > 0xffffffffull) {
        std::fprintf(stderr, "esa-ramtarget: the ring path serves at most 4 GiB of LUNs in all; use --direct\n");
        return 2;
    }
    // Direct: the LUNs in RamBackend. Rings: data commands on the multi-issue
    // rings, the rest on the command queues, both answered by the responder.
    std::unique_ptr<RamBackend> backend;
    if (direct) backend = std::make_unique<RamBackend>(luns, size);
    RamBackend::publishLuns(luns, size);
    DriverRegions regions;
    std::unique_ptr<RamRingResponder> responder;
    std::unique_ptr<MultiIssueDriver> driver;
    std::unique_ptr<CommandQueueDriver> queue;
    if (!direct) {
        if (!regions.openWithPrivatePools(MultiIssueDriver::kJournalBytes, RamRingResponder::readBufferBytes(luns, size),
                                          MultiIssueDriver::kRequestIds)
                 .ok()) {
            std::fprintf(stderr, "esa-ramtarget: cannot open the shared regions\n");
            return 1;
        }
        responder = std::make_unique<RamRingResponder>(regions, luns, size);
        queue = std::make_unique<CommandQueueDriver>(regions);
        driver = std::make_unique<MultiIssueDriver>(regions, *queue);
        responder->start();
        queue->start();
        driver->start();
    }
    IscsiTarget target(direct ? static_cast<TargetBackend&>(*backend) : *driver, config);
    if (!target.start().ok()) return 1;
    std::printf("esa-ramtarget: %s listening on port %u, %u LUN(s) of %llu bytes\n", config.targetName.c_str(),
                target.port(), luns, (unsigned long long)size);
    std::fflush(stdout);
    int sig = 0;
    sigwait(&set, &sig);
    target.stop();
    if (driver) driver->stop();
    if (queue) queue->stop();
    if (responder) responder->stop();
    regions.closePrivatePools();
    return 0;
}
