#include "util/PerfAccumulator.h"

#include "platform/rtos/BoardClock.h"
#include "platform/rtos/Rtos.h"
#include "util/PrintHelpers.h"
#include "util/Trace.h"

uint64_t getTimebase() { return BoardClock::GetInstance().microseconds(); }

int PerfAccumulator::binFor(uint64_t v) {
    if (v == 0) return 0;
    int b = 63 - __builtin_clzll(v);
    return b > 31 ? 31 : b;
}

void PerfAccumulator::add(uint64_t us) {
    uint32_t v = us > UINT32_MAX ? UINT32_MAX : uint32_t(us);
    if (samples == 0 || v < min) min = v;
    if (v > max) max = v;
    samples++;
    total += us;
    bins[binFor(us)]++;
}

static void dumpCommon(std::ostream& out, uint32_t samples, uint64_t total, uint64_t min, uint64_t max,
                       const uint32_t* bins, bool longForm, const char* axis) {
    if (samples == 0) {
        out << "(no samples)\n";
        return;
    }
    out << " Samples=" << samples << " Total=" << total << " Min=" << min << " Av=" << total / samples
        << " Max=" << max << "\n";
    if (!longForm) return;
    out << axis;
    for (int i = 0; i < 32; ++i)
        if (bins[i]) out << "  bin " << i << ": " << bins[i] << "\n";
}

void PerfAccumulator::Dump(std::ostream& out, bool longForm) const {
    dumpCommon(out, samples, total, min, max, bins, longForm, "          1us 16u 256u 4m 65ms 1s 16s 268s\n");
}

void DataAccumulator::Dump(std::ostream& out, bool longForm) const {
    dumpCommon(out, samples, total, min, max, bins, longForm,
               "           1  16  256  4K 65K  1M 16M 268M\n                       Sectors\n");
}

void LinearAccumulator::add(uint64_t v) {
    if (samples == 0 || v < min) min = v;
    if (v > max) max = v;
    samples++;
    total += v;
    bins[v > 31 ? 31 : v]++;
}

void LinearAccumulator::Dump(std::ostream& out) const { dumpCommon(out, samples, total, min, max, bins, false, ""); }

PerfSamplerLimitForced::PerfSamplerLimitForced(PerfAccumulator* acc, const char* text, uint64_t limit)
    : mAcc(acc), mStart(getTimebase()), mText(text), mLimit(limit) {}

PerfSamplerLimitForced::~PerfSamplerLimitForced() { finish(); }

void PerfSamplerLimitForced::finish() {
    if (mDone) return;
    mDone = true;
    uint64_t elapsed = getTimebase() - mStart;
    if (mAcc) mAcc->add(elapsed);
    if (elapsed > mLimit) ESA_CONSOLE(taskName(taskIdSelf()) << " " << mText << " took " << TimeDumper(elapsed));
}
