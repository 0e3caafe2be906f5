// esa-ramtarget: the appliance's iSCSI target serving memory-backed LUNs.
// It tests and measures the protocol layer without the rest of the system:
//   esa-ramtarget [--portal ADDR] [--luns N] [--size BYTES] [--target-name IQN]
// SIZE takes k, m, g suffixes (powers of 1024). It runs until SIGINT/SIGTERM.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/target/IscsiTarget.h"
#include "platform/target/RamBackend.h"
#include "platform/target/TargetLunTable.h"

namespace {

bool parseSize(const char* text, uint64_t& out) {
    char* end = nullptr;
    unsigned long long v = std::strtoull(text, &end, 10);
    if (end == text) return false;
    switch (*end) {
    case 'k': case 'K': v <<= 10; ++end; break;
    case 'm': case 'M': v <<= 20; ++end; break;
    case 'g': case 'G': v <<= 30; ++end; break;
    default: break;
    }
    if (*end != 0 || v < 4096) return false;
    out = v;
    return true;
}

int usage() {
    std::fprintf(stderr, "usage: esa-ramtarget [--portal HOST:PORT] [--luns N] [--size BYTES] [--target-name IQN]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    IscsiTargetConfig config = IscsiTargetConfig::fromEnvironment();
    uint32_t luns = 1;
    uint64_t size = 256ull << 20;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (i + 1 >= argc) return usage();
        const char* v = argv[++i];
        if (a == "--portal") {
            config.portal = v;
        } else if (a == "--luns") {
            luns = uint32_t(std::atoi(v));
            if (luns < 1 || luns > TargetLunTable::kMaxLuns) return usage();
        } else if (a == "--size") {
            if (!parseSize(v, size)) return usage();
        } else if (a == "--target-name") {
            config.targetName = v;
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

    RamBackend backend(luns, size);
    backend.publish();
    IscsiTarget target(backend, config);
    if (!target.start().ok()) return 1;
    std::printf("esa-ramtarget: %s listening on port %u, %u LUN(s) of %llu bytes\n", config.targetName.c_str(),
                target.port(), luns, (unsigned long long)size);
    std::fflush(stdout);
    int sig = 0;
    sigwait(&set, &sig);
    target.stop();
    return 0;
}
