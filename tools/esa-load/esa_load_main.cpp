// esa-load: host load generator and verifier over iSCSI.
//   esa-load URL [--pattern seq|rand] [--rw read|write|mix] [--bs 4k] [--qd 32]
//            [--seconds S | --bytes N] [--seed N] [--verify] [--sessions N]
//            [--range BYTES]
// URL is iscsi://HOST:PORT/TARGET/LUN. Each session keeps --qd commands in
// flight through libiscsi's asynchronous interface; one thread polls them all.
// It prints MB/s (10^6 bytes), IOPS and latency percentiles, and a "result"
// line for scripts. --verify writes self-describing sectors, checks every
// read against the generation it last wrote there, and reads everything it
// wrote once more at the end; any mismatch or failed command makes the exit
// status non-zero.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <iscsi/iscsi.h>
#include <iscsi/scsi-lowlevel.h>
}

#include "tools/common/ByteSize.h"
#include "tools/esa-load/VerifyBlock.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    std::string url;
    bool random = false;
    enum class Rw { Read, Write, Mix } rw = Rw::Read;
    uint32_t bs = 4096;
    uint32_t qd = 32;
    double seconds = 0;
    uint64_t bytes = 0;
    uint64_t seed = 1;
    bool verify = false;
    uint32_t sessions = 1;
    uint64_t range = 0;
};

int usage(const char* why) {
    std::fprintf(stderr,
                 "esa-load: %s\nusage: esa-load URL [--pattern seq|rand] [--rw read|write|mix] [--bs 4k] [--qd 32]\n"
                 "                [--seconds S | --bytes N] [--seed N] [--verify] [--sessions N] [--range BYTES]\n",
                 why);
    return 2;
}

struct Session;

struct Io {
    Session* session = nullptr;
    std::vector<uint8_t> buffer;
    struct scsi_iovec iov = {};
    uint64_t block = 0;  // index of the bs-sized block in the range
    bool write = false;
    bool finalCheck = false;
    Clock::time_point start;
};

struct Session {
    struct iscsi_context* ctx = nullptr;
    int lun = 0;
    std::vector<std::unique_ptr<Io>> ios;
    std::vector<Io*> idle;
    bool dead = false;
};

struct Load {
    Options opt;
    uint64_t blocks = 0;        // bs-sized blocks in the range
    uint32_t sectorsPerBlock = 0;
    std::vector<Session> sessions;
    // Verification state, per block: the generation last written (0 never,
    // UINT64_MAX unknown after a failed write) and whether an I/O is on it.
    std::vector<uint64_t> generation;
    std::vector<uint8_t> busy;
    uint64_t nextGeneration = 1;
    uint64_t cursor = 0;
    uint64_t rng = 0;
    uint64_t issuedBytes = 0;
    uint64_t doneBytes = 0, doneIos = 0;
    uint64_t errors = 0, mismatches = 0;
    std::vector<uint32_t> latencyUs;
    bool stopIssuing = false;
    // Final read-back pass.
    bool finalPass = false;
    uint64_t finalCursor = 0;
    int inFlight = 0;
};

Load* gLoad = nullptr;

uint64_t nextRandom(Load& l) {
    l.rng ^= l.rng << 13;
    l.rng ^= l.rng >> 7;
    l.rng ^= l.rng << 17;
    return l.rng;
}

void reportMismatch(Load& l, uint64_t block, uint32_t sector, const std::string& what) {
    ++l.mismatches;
    if (l.mismatches <= 10) {
        uint64_t lba = block * l.sectorsPerBlock + sector;
        std::fprintf(stderr, "esa-load: MISMATCH at LBA %llu: %s\n", (unsigned long long)lba, what.c_str());
    }
}

void checkRead(Load& l, Io& io) {
    uint64_t gen = l.generation[io.block];
    if (gen == 0 || gen == UINT64_MAX) return;  // never written by this run, or unknown
    for (uint32_t s = 0; s < l.sectorsPerBlock; ++s) {
        uint64_t lba = io.block * l.sectorsPerBlock + s;
        std::string what = verify::checkSector(io.buffer.data() + s * verify::kSector, uint32_t(io.session->lun), lba,
                                               gen, l.opt.seed);
        if (!what.empty()) {
            reportMismatch(l, io.block, s, what);
            return;
        }
    }
}

void completion(struct iscsi_context*, int status, void* commandData, void* privateData) {
    Io& io = *static_cast<Io*>(privateData);
    Load& l = *gLoad;
    auto* task = static_cast<struct scsi_task*>(commandData);
    --l.inFlight;
    bool ok = status == SCSI_STATUS_GOOD;
    if (!ok) {
        ++l.errors;
        if (l.errors <= 10)
            std::fprintf(stderr, "esa-load: %s of block %llu failed: %s\n", io.write ? "write" : "read",
                         (unsigned long long)io.block, iscsi_get_error(io.session->ctx));
        if (io.write && l.opt.verify) l.generation[io.block] = UINT64_MAX;
    } else {
        auto us = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - io.start).count();
        if (!io.finalCheck) {
            l.latencyUs.push_back(uint32_t(std::min<int64_t>(us, UINT32_MAX)));
            l.doneBytes += l.opt.bs;
            ++l.doneIos;
        }
        if (!io.write && l.opt.verify) checkRead(l, io);
    }
    if (task) scsi_free_scsi_task(task);
    if (l.opt.verify) l.busy[io.block] = 0;
    io.session->idle.push_back(&io);
}

// Picks the next block, skipping blocks with an I/O on them when verifying.
bool pickBlock(Load& l, uint64_t& block) {
    for (int tries = 0; tries < 64; ++tries) {
        uint64_t b = l.opt.random ? nextRandom(l) % l.blocks : (l.cursor++ % l.blocks);
        if (!l.opt.verify || !l.busy[b]) {
            block = b;
            return true;
        }
    }
    return false;
}

bool issue(Load& l, Session& s, Io& io, uint64_t block, bool write, bool finalCheck) {
    io.block = block;
    io.write = write;
    io.finalCheck = finalCheck;
    uint64_t lba = block * l.sectorsPerBlock;
    if (write && l.opt.verify) {
        uint64_t gen = l.nextGeneration++;
        for (uint32_t i = 0; i < l.sectorsPerBlock; ++i)
            verify::fillSector(io.buffer.data() + i * verify::kSector, uint32_t(s.lun), lba + i, gen, l.opt.seed);
        l.generation[block] = gen;
    }
    if (l.opt.verify) l.busy[block] = 1;
    io.iov.iov_base = io.buffer.data();
    io.iov.iov_len = l.opt.bs;
    io.start = Clock::now();
    struct scsi_task* t =
        write ? iscsi_write16_iov_task(s.ctx, s.lun, lba, nullptr, l.opt.bs, verify::kSector, 0, 0, 0, 0, 0,
                                       completion, &io, &io.iov, 1)
              : iscsi_read16_iov_task(s.ctx, s.lun, lba, l.opt.bs, verify::kSector, 0, 0, 0, 0, 0, completion, &io,
                                      &io.iov, 1);
    if (t == nullptr) {
        std::fprintf(stderr, "esa-load: cannot queue a command: %s\n", iscsi_get_error(s.ctx));
        if (l.opt.verify) l.busy[block] = 0;
        ++l.errors;
        return false;
    }
    ++l.inFlight;
    return true;
}

void refill(Load& l, Session& s) {
    while (!s.idle.empty() && !s.dead) {
        Io* io = s.idle.back();
        uint64_t block = 0;
        if (l.finalPass) {
            while (l.finalCursor < l.blocks &&
                   (l.generation[l.finalCursor] == 0 || l.generation[l.finalCursor] == UINT64_MAX))
                ++l.finalCursor;
            if (l.finalCursor >= l.blocks) return;
            block = l.finalCursor++;
            s.idle.pop_back();
            if (!issue(l, s, *io, block, false, true)) s.idle.push_back(io);
            continue;
        }
        if (l.stopIssuing) return;
        if (l.opt.bytes && l.issuedBytes >= l.opt.bytes) return;
        if (!pickBlock(l, block)) return;
        bool write = l.opt.rw == Options::Rw::Write ||
                     (l.opt.rw == Options::Rw::Mix && (nextRandom(l) & 1) != 0);
        s.idle.pop_back();
        if (!issue(l, s, *io, block, write, false)) {
            s.idle.push_back(io);
            return;
        }
        l.issuedBytes += l.opt.bs;
    }
}

// Runs until nothing is in flight and nothing more is to be issued.
void eventLoop(Load& l, Clock::time_point deadline, bool timed) {
    std::vector<struct pollfd> fds(l.sessions.size());
    for (;;) {
        if (timed && Clock::now() >= deadline) l.stopIssuing = true;
        for (auto& s : l.sessions) refill(l, s);
        if (l.inFlight == 0) return;
        for (size_t i = 0; i < l.sessions.size(); ++i) {
            fds[i].fd = iscsi_get_fd(l.sessions[i].ctx);
            fds[i].events = short(iscsi_which_events(l.sessions[i].ctx));
            fds[i].revents = 0;
        }
        int r = ::poll(fds.data(), fds.size(), 1000);
        if (r < 0) continue;
        for (size_t i = 0; i < l.sessions.size(); ++i) {
            if (iscsi_service(l.sessions[i].ctx, fds[i].revents) < 0) {
                std::fprintf(stderr, "esa-load: session %zu failed: %s\n", i, iscsi_get_error(l.sessions[i].ctx));
                ++l.errors;
                l.sessions[i].dead = true;
                l.stopIssuing = true;
                return;
            }
        }
    }
}

bool connect(Load& l, Session& s, uint32_t index) {
    std::string initiator = "iqn.2026-11.local.esa:load-" + std::to_string(::getpid()) + "-" + std::to_string(index);
    s.ctx = iscsi_create_context(initiator.c_str());
    if (!s.ctx) return false;
    struct iscsi_url* url = iscsi_parse_full_url(s.ctx, l.opt.url.c_str());
    if (!url) {
        std::fprintf(stderr, "esa-load: bad URL %s: %s\n", l.opt.url.c_str(), iscsi_get_error(s.ctx));
        return false;
    }
    iscsi_set_targetname(s.ctx, url->target);
    iscsi_set_session_type(s.ctx, ISCSI_SESSION_NORMAL);
    iscsi_set_header_digest(s.ctx, ISCSI_HEADER_DIGEST_NONE);
    s.lun = url->lun;
    int rc = iscsi_full_connect_sync(s.ctx, url->portal, url->lun);
    iscsi_destroy_url(url);
    if (rc != 0) {
        std::fprintf(stderr, "esa-load: login to %s failed: %s\n", l.opt.url.c_str(), iscsi_get_error(s.ctx));
        return false;
    }
    return true;
}

double percentile(std::vector<uint32_t>& v, double p) {
    if (v.empty()) return 0;
    size_t i = std::min(v.size() - 1, size_t(p / 100.0 * double(v.size())));
    return v[i];
}

}  // namespace

int main(int argc, char** argv) {
    Load l;
    gLoad = &l;
    Options& o = l.opt;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        const char* v = nullptr;
        if (a == "--verify") { o.verify = true; continue; }
        if (a.rfind("--", 0) != 0) {
            if (!o.url.empty()) return usage("more than one URL");
            o.url = a;
            continue;
        }
        if (!(v = value())) return usage(("missing value for " + a).c_str());
        uint64_t n = 0;
        if (a == "--pattern") {
            if (std::strcmp(v, "seq") && std::strcmp(v, "rand")) return usage("--pattern is seq or rand");
            o.random = std::strcmp(v, "rand") == 0;
        } else if (a == "--rw") {
            if (!std::strcmp(v, "read")) o.rw = Options::Rw::Read;
            else if (!std::strcmp(v, "write")) o.rw = Options::Rw::Write;
            else if (!std::strcmp(v, "mix")) o.rw = Options::Rw::Mix;
            else return usage("--rw is read, write or mix");
        } else if (a == "--bs") {
            if (!parseByteSize(v, n) || n == 0 || n % verify::kSector || n > (1u << 24)) return usage("bad --bs");
            o.bs = uint32_t(n);
        } else if (a == "--qd") {
            o.qd = uint32_t(std::atoi(v));
            if (o.qd < 1 || o.qd > 1024) return usage("bad --qd");
        } else if (a == "--seconds") {
            o.seconds = std::atof(v);
            if (o.seconds <= 0) return usage("bad --seconds");
        } else if (a == "--bytes") {
            if (!parseByteSize(v, o.bytes) || o.bytes == 0) return usage("bad --bytes");
        } else if (a == "--seed") {
            o.seed = std::strtoull(v, nullptr, 0);
        } else if (a == "--sessions") {
            o.sessions = uint32_t(std::atoi(v));
            if (o.sessions < 1 || o.sessions > 64) return usage("bad --sessions");
        } else if (a == "--range") {
            if (!parseByteSize(v, o.range) || o.range == 0) return usage("bad --range");
        } else {
            return usage(("unknown option " + a).c_str());
        }
    }
    if (o.url.empty()) return usage("no URL");
    if (o.seconds > 0 && o.bytes > 0) return usage("--seconds and --bytes exclude each other");
    if (o.seconds == 0 && o.bytes == 0) o.seconds = 10;
    l.rng = o.seed * 0x9e3779b97f4a7c15ull + 0x2545f4914f6cdd1dull;
    if (l.rng == 0) l.rng = 1;

    l.sessions.resize(o.sessions);
    for (uint32_t i = 0; i < o.sessions; ++i)
        if (!connect(l, l.sessions[i], i)) return 1;

    struct scsi_task* rc16 = iscsi_readcapacity16_sync(l.sessions[0].ctx, l.sessions[0].lun);
    if (!rc16 || rc16->status != SCSI_STATUS_GOOD) {
        std::fprintf(stderr, "esa-load: READ CAPACITY (16) failed: %s\n", iscsi_get_error(l.sessions[0].ctx));
        return 1;
    }
    auto* cap = static_cast<struct scsi_readcapacity16*>(scsi_datain_unmarshall(rc16));
    if (!cap || cap->block_length != verify::kSector) {
        std::fprintf(stderr, "esa-load: only 512-byte blocks are supported\n");
        return 1;
    }
    uint64_t lunBytes = (cap->returned_lba + 1) * verify::kSector;
    scsi_free_scsi_task(rc16);
    uint64_t range = o.range ? std::min(o.range, lunBytes) : lunBytes;
    if (o.verify && !o.range) range = std::min<uint64_t>(range, 4ull << 30);
    l.blocks = range / o.bs;
    l.sectorsPerBlock = o.bs / verify::kSector;
    if (l.blocks == 0) return usage("the range is smaller than one block");
    if (o.verify) {
        l.generation.assign(l.blocks, 0);
        l.busy.assign(l.blocks, 0);
    }
    for (auto& s : l.sessions) {
        for (uint32_t q = 0; q < o.qd; ++q) {
            auto io = std::make_unique<Io>();
            io->session = &s;
            io->buffer.resize(o.bs);
            s.idle.push_back(io.get());
            s.ios.push_back(std::move(io));
        }
    }
    l.latencyUs.reserve(1 << 20);

    auto start = Clock::now();
    auto deadline = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(o.seconds));
    eventLoop(l, deadline, o.seconds > 0);
    double elapsed = std::chrono::duration<double>(Clock::now() - start).count();

    bool dead = std::any_of(l.sessions.begin(), l.sessions.end(), [](const Session& s) { return s.dead; });
    if (o.verify && o.rw != Options::Rw::Read && !dead) {
        l.finalPass = true;
        l.stopIssuing = false;
        eventLoop(l, deadline, false);
    }

    std::sort(l.latencyUs.begin(), l.latencyUs.end());
    double mbps = elapsed > 0 ? double(l.doneBytes) / elapsed / 1e6 : 0;
    double iops = elapsed > 0 ? double(l.doneIos) / elapsed : 0;
    const char* rw = o.rw == Options::Rw::Read ? "read" : o.rw == Options::Rw::Write ? "write" : "mix";
    std::printf("esa-load: %s %s bs %u qd %u sessions %u: %.1f MB/s, %.0f IOPS, latency p50 %.0f us, p99 %.0f us, "
                "p99.9 %.0f us; %llu errors, %llu mismatches\n",
                o.random ? "rand" : "seq", rw, o.bs, o.qd, o.sessions, mbps, iops, percentile(l.latencyUs, 50),
                percentile(l.latencyUs, 99), percentile(l.latencyUs, 99.9), (unsigned long long)l.errors,
                (unsigned long long)l.mismatches);
    std::printf("result mbps=%.1f iops=%.0f p50_us=%.0f p99_us=%.0f p999_us=%.0f errors=%llu mismatches=%llu\n", mbps,
                iops, percentile(l.latencyUs, 50), percentile(l.latencyUs, 99), percentile(l.latencyUs, 99.9),
                (unsigned long long)l.errors, (unsigned long long)l.mismatches);
    for (auto& s : l.sessions) {
        if (!s.dead) iscsi_logout_sync(s.ctx);
        iscsi_destroy_context(s.ctx);
    }
    return (l.errors || l.mismatches) ? 1 : 0;
}
