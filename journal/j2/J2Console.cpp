// J2Manager diagnostics: dumps, statistics and the console commands.
#include <chrono>
#include <cstring>
#include <iomanip>
#include <vector>

#include "journal/j2/J2Manager.h"
#include "util/ConsoleCommand.h"
#include "util/ManagerRegistry.h"

using namespace j2;

void J2Manager::Dump(std::ostream& out) {
    out << "J2Manager: " << (mInitialized ? "initialised" : "not initialised") << ", "
        << (mLoaded ? "loaded" : "not loaded") << (mNvramSuspect ? ", NVRAM SUSPECT" : "") << "\n";
    if (!mBase) return;
    out << "j2soft: signature 0x" << std::hex << mSoft->getSignature() << std::dec
        << " numdisks " << getLE16(mSoft->numdisks) << " critical 0x" << std::hex << mCriticalMap.load() << std::dec
        << " activity " << mActivity.load() << " idle " << mIdle.load() << "\n";
    for (unsigned s = 0; s < kMaxDisks; ++s) {
        const DiskHeader& h = dh(s);
        out << " J2diskHeader[" << s << "] magic 0x" << std::hex << h.getMagic() << std::dec << " diskNum "
            << h.getDiskNum() << " valid " << h.getValid() << " clean " << h.getClean() << " journalette 0x"
            << std::hex << h.getJournalette() << " payload 0x" << h.getPayload() << std::dec << " diskId ["
            << h.diskId << "]\n";
        if (location[s].journalette)
            out << "   load ctrl +" << (load[s].ctrl - location[s].journalette) << " payload +"
                << (load[s].payload - location[s].payload) << " space ctrl " << space[s].ctrl << " payload "
                << space[s].payload << "\n";
    }
    LockObject::SharedLockInstance g(&mBuildListLock);
    unsigned sets = 0;
    for (J2set* s = mBuildList; s; s = s->next) ++sets;
    out << " sets being built: " << sets << "\n";
}

void J2Manager::DumpTrans(std::ostream& out, int only) {
    if (!mBase) return;
    for (unsigned s = 0; s < kMaxDisks; ++s) {
        if (only >= 0 && unsigned(only) != s) continue;
        out << "journalette " << s << (dh(s).getClean() ? " (clean)" : " (dirty)") << "\n";
        unsigned char* rec = mBase + ctrlOffset(s);
        while (rec + kSetHeadSize <= mBase + ctrlOffset(s) + kCtrlSize) {
            auto* head = reinterpret_cast<AtomicSetHead*>(rec);
            if (head->getMark() != kMark) break;
            out << " AtomicSet id 0x" << std::hex << head->getId() << std::dec << " numTran " << head->getNumTran()
                << "\n";
            auto* tr = reinterpret_cast<J2Transaction*>(rec + kSetHeadSize);
            for (uint16_t i = 0; i < head->getNumTran() && rec + recordSize(i + 1) <= mBase + ctrlOffset(s) + kCtrlSize; ++i)
                out << "   J2Transaction lba 0x" << std::hex << tr[i].getLba() << std::dec << " place "
                    << tr[i].getPlace() << " numSecs " << (tr[i].getNumSecs() & ~kInjectBit)
                    << ((tr[i].getNumSecs() & kInjectBit) ? " INJECT" : "") << "\n";
            rec += recordSize(head->getNumTran());
        }
    }
}

void J2Manager::PerfInfo(std::ostream& out) {
    out << "J2Manager commit timings:\n";
    mCommitTimes.Dump(out, true);
    out << "J2Manager write timings:\n";
    mWriteTimes.Dump(out);
    out << "J2Manager copy to NVRAM timings:\n";
    mCopyTimes.Dump(out);
    out << "J2Manager Playout timings:\n";
    mPlayoutTimes.Dump(out);
    out << "J2Manager disk flushes:\n";
    mFlushTimes.Dump(out);
    out << "J2Manager spill write sizes (sectors), " << mSpillWrites.load() << " writes, " << mSpillCount.load()
        << " journalettes spilled:\n";
    mSpillSizes.Dump(out);
}

// Copy rate into battery-backed memory, on a scratch buffer of the same
// mapping kind: the journal itself is never touched.
void J2Manager::measurePSRAMPerf(std::ostream& out) {
    std::vector<unsigned char> src(64 * 1024, 0xA5), dst(64 * 1024);
    auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < 256; ++i) std::memcpy(dst.data(), src.data(), src.size());
    double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    out << "J2Manager: memory copy rate " << std::fixed << std::setprecision(1)
        << (256.0 * src.size() / (1 << 20)) / (s > 0 ? s : 1e-9) << " MB/s\n";
}

namespace {
struct Registration {
    Registration() {
        ManagerRegistry::add(
            "J2Manager", [](std::ostream& out) { J2Manager::GetInstance()->Dump(out); },
            [](std::ostream& out) { J2Manager::GetInstance()->PerfInfo(out); });
    }
} gRegistration;

int j2DumpCommand(int argc, char** argv, std::ostream& out) {
    long long slot = -1;
    if (argc > 1 && !parseConsoleNumber(argv[1], slot)) {
        out << "usage: j2dump [slot]\n";
        return 1;
    }
    J2Manager::GetInstance()->Dump(out);
    J2Manager::GetInstance()->DumpTrans(out, int(slot));
    return 0;
}
int j2PerfCommand(int, char**, std::ostream& out) {
    J2Manager::GetInstance()->PerfInfo(out);
    return 0;
}
int j2FlushCommand(int, char**, std::ostream& out) {
    J2Manager::GetInstance()->forceFlush(false);
    out << "J2 flushed; journals " << (J2Manager::GetInstance()->journalsClean() ? "clean" : "NOT clean") << "\n";
    return 0;
}
int j2PsramCommand(int, char**, std::ostream& out) {
    J2Manager::GetInstance()->measurePSRAMPerf(out);
    return 0;
}
ConsoleCommand gJ2Dump("j2dump", "J2: headers, journalettes and committed sets [slot]", j2DumpCommand);
ConsoleCommand gJ2Perf("j2perf", "J2: commit, copy, playout and flush timings", j2PerfCommand);
ConsoleCommand gJ2Flush("j2flush", "J2: spill every journalette now", j2FlushCommand);
ConsoleCommand gJ2Psram("j2psramperf", "J2: measure the copy rate into battery-backed memory", j2PsramCommand);
}  // namespace
