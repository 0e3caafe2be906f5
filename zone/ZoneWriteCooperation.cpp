#include "zone/ZoneWriteCooperation.h"

#include "util/Assert.h"
#include "util/Trace.h"

namespace {
Trace zmCoopTrace("ZM", "WriteCoop", "debug", false);

// The slot mutex and the task lock, inner last, for one short step.
class SlotStep {
public:
    explicit SlotStep(SEM_ID mutex) : mMutex(mutex) {
        semTake(mMutex, WAIT_FOREVER);
        taskRtpLock();
    }
    ~SlotStep() {
        taskRtpUnlock();
        semGive(mMutex);
    }
    SlotStep(const SlotStep&) = delete;
    SlotStep& operator=(const SlotStep&) = delete;

private:
    SEM_ID mMutex;
};
}  // namespace

ZoneWriteCooperation::ZoneWriteCooperation() {
    for (Slot& s : mSlots) {
        s.mutex = semMCreate(SEM_Q_PRIORITY | SEM_INVERSION_SAFE);
        s.wakeup = semBCreate(SEM_Q_PRIORITY, SEM_EMPTY);
    }
}

ZoneWriteCooperation::~ZoneWriteCooperation() {
    for (Slot& s : mSlots) {
        semDelete(s.mutex);
        semDelete(s.wakeup);
    }
}

int ZoneWriteCooperation::slotOfCaller() {
    const std::string name = taskName(taskIdSelf());
    if (name.size() != 10 || name.compare(0, 9, "tWPThread") != 0) return -1;
    const int slot = name[9] - '0';
    return slot >= 0 && slot < int(kSlots) ? slot : -1;
}

void ZoneWriteCooperation::record(int slot, uint32_t zone, uint32_t pos, uint32_t len, DataWindow* window) {
    Slot& own = mSlots[slot];
    SlotStep step(own.mutex);
    own.zone = zone;
    own.recordedStart = own.currentStart = pos;
    own.recordedEnd = own.currentEnd = pos + len;
    own.window = window;
    own.waiting = 0;
    own.active = 1;
    for (Slot& other : mSlots) {
        if (&other == &own || !other.active || !other.waiting || other.zone != zone || other.currentEnd != pos)
            continue;
        other.waiting = 0;
        semGive(other.wakeup);
        break;
    }
}

bool ZoneWriteCooperation::remaining(int slot, uint32_t& start, uint32_t& end) {
    Slot& own = mSlots[slot];
    SlotStep step(own.mutex);
    start = own.currentStart;
    end = own.currentEnd;
    if (start == own.recordedStart && end == own.recordedEnd) return true;
    ESA_TRACE(zmCoopTrace, "Thread " << slot << " recorded range has been altered by another thread, now from "
                                     << start << " to " << end);
    if (start == end) {
        own.active = 0;
        ESA_TRACE(zmCoopTrace, "Thread " << slot << " all remaining data processed by other threads");
        return false;
    }
    return true;
}

void ZoneWriteCooperation::clear(int slot) {
    Slot& own = mSlots[slot];
    SlotStep step(own.mutex);
    own.active = 0;
    own.waiting = 0;
}

void ZoneWriteCooperation::takeMissing(int slot, uint32_t zone, uint32_t line, uint32_t& pos, uint32_t& length,
                                       DataWindow& active, bool retry, bool& frontMissing, bool& endMissing) {
    Slot& own = mSlots[slot];
    const char* found = retry ? " +++++ Retry found missing data in Thread " : " **** Found missing data in Thread ";
    SlotStep step(own.mutex);
    const uint32_t front = pos % line;
    frontMissing = front != 0;
    for (unsigned i = 0; frontMissing && i < kSlots; ++i) {
        Slot& other = mSlots[i];
        if (&other == &own || !other.active || other.zone != zone || other.recordedEnd != pos ||
            other.currentEnd != pos || pos - other.currentStart < front)
            continue;
        other.currentEnd = other.recordedEnd - front;
        StatusCode st = other.window->copyEndToFront(active, front);
        ESA_ASSERT(st.ok());
        pos -= front;
        length += front;
        mBytesTaken += front;
        frontMissing = false;
        ESA_TRACE(zmCoopTrace, "Thread " << slot << found << i << " copying from end");
    }
    const uint32_t tail = (pos + length) % line ? line - (pos + length) % line : 0;
    endMissing = tail != 0;
    const uint32_t end = pos + length;
    for (unsigned i = 0; endMissing && i < kSlots; ++i) {
        Slot& other = mSlots[i];
        if (&other == &own || !other.active || other.zone != zone || other.recordedStart != end ||
            other.currentStart != end || other.currentEnd - end < tail)
            continue;
        other.currentStart = other.recordedStart + tail;
        StatusCode st = other.window->copyFrontToEnd(active, tail);
        ESA_ASSERT(st.ok());
        length += tail;
        mBytesTaken += tail;
        endMissing = false;
        ESA_TRACE(zmCoopTrace, "Thread " << slot << found << i << " copying from front");
    }
}

void ZoneWriteCooperation::completeLine(int slot, uint32_t zone, uint32_t line, uint32_t& pos, uint32_t& length,
                                        DataWindow& active) {
    Slot& own = mSlots[slot];
    for (bool retry = false;; retry = true) {
        bool frontMissing = false, endMissing = false;
        takeMissing(slot, zone, line, pos, length, active, retry, frontMissing, endMissing);
        if (!frontMissing && !endMissing) return;
        // Only a missing end is worth a wait: the clusters of a batch are
        // placed after those of the batches before it, so the piece in front
        // was recorded before this one or has already been written, and no
        // later record would wake a thread that waits for its front. A
        // missing front alone is filled from disk at once.
        if (!endMissing && !retry) {
            ESA_TRACE(zmCoopTrace, "WriteDataNoLock: --- Thread " << slot << " missing START, not waiting");
            return;
        }
        if (retry) {
            ESA_TRACE(zmCoopTrace, "WriteDataNoLock: --- Thread "
                                       << slot << " missing data it could not find even after rechecking:"
                                       << (frontMissing ? " START" : "") << (endMissing ? " END" : ""));
            return;
        }
        {
            SlotStep step(own.mutex);
            if (mWaiters.load() >= kMaxWaiters) {
                ESA_TRACE(zmCoopTrace, "Thread " << slot << " cannot wait - already max threads waiting");
                return;
            }
            ESA_TRACE(zmCoopTrace, "Thread " << slot << " missing data it could not find - pausing");
            own.waiting = 1;
            ++mWaiters;
            ++mWaits;
        }
        semTake(own.wakeup, sysClkRateGet() / 10);
        {
            SlotStep step(own.mutex);
            own.waiting = 0;
            --mWaiters;
        }
        ESA_TRACE(zmCoopTrace, "Thread " << slot << " wait over - rechecking");
    }
}

void ZoneWriteCooperation::Dump(std::ostream& out) {
    taskRtpLock();
    out << "Write thread cooperation: " << mWaiters.load() << " writer threads waiting for missing data, "
        << mBytesTaken.load() << " bytes taken, " << mWaits.load() << " waits\n";
    for (unsigned i = 0; i < kSlots; ++i) {
        const Slot& s = mSlots[i];
        if (!s.active) continue;
        out << "  ZM_mutex_" << i << ": Zone " << s.zone << " recorded [" << s.recordedStart << ", "
            << s.recordedEnd << ") current [" << s.currentStart << ", " << s.currentEnd << ")"
            << (s.waiting ? " waiting" : "") << "\n";
    }
    taskRtpUnlock();
}
