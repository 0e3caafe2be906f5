#include "util/Trace.h"

#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "platform/rtos/BoardClock.h"

std::atomic<bool> Trace::m_enabled{true};

std::string traceTimeStamp() {
    timespec ts = BoardClock::GetInstance().realtime();
    time_t secs = ts.tv_sec;
    struct tm tmv;
    localtime_r(&secs, &tmv);
    char buf[64];
    strftime(buf, sizeof buf, "%F,%T: ", &tmv);
    return buf;
}

void traceEmitLine(const std::string& line) {
    std::string text = traceTimeStamp() + line;
    if (text.empty() || text.back() != '\n') text += '\n';
    // One write per line: lines from different threads may interleave but never tear.
    std::fflush(stdout);
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(1, text.data() + done, text.size() - done);
        if (n <= 0) break;
        done += size_t(n);
    }
}

template <class Stream>
int StreamBuffer<Stream>::overflow(int c) {
    if (c == traits_type::eof()) return 0;
    std::lock_guard<std::mutex> g(mLock);
    mLine.push_back(char(c));
    if (c == '\n') emit();
    return c;
}

template <class Stream>
std::streamsize StreamBuffer<Stream>::xsputn(const char* s, std::streamsize n) {
    std::lock_guard<std::mutex> g(mLock);
    for (std::streamsize i = 0; i < n; ++i) {
        mLine.push_back(s[i]);
        if (s[i] == '\n') emit();
    }
    return n;
}

template <class Stream>
int StreamBuffer<Stream>::sync() {
    std::lock_guard<std::mutex> g(mLock);
    if (!mLine.empty()) emit();
    return 0;
}

template <class Stream>
void StreamBuffer<Stream>::emit() {
    traceEmitLine(mLine);
    mLine.clear();
}

template class StreamBuffer<std::ostream>;

std::vector<Trace*>& Trace::All() {
    static std::vector<Trace*> all;
    return all;
}

Trace::Trace(const char* group, const char* name, const char* type, bool enabled)
    : std::ostream(&mBuffer), mGroup(group), mName(name), mType(type), mTracing(enabled) {
    All().push_back(this);
    if (enabled) {
        std::string line = "Trace created enabled: " + mGroup + ":" + mName + ":" + mType + "\n";
        (void)!::write(1, line.data(), line.size());
    }
}

Trace::~Trace() {
    auto& all = All();
    all.erase(std::remove(all.begin(), all.end(), this), all.end());
}

void Trace::writeLine(const std::string& text) { traceEmitLine(text); }

void Trace::ListTraces(std::ostream& out) {
    out << "Debug tracing is globally " << (IsEnabled() ? "enabled" : "disabled") << "\n";
    out << "Traces defined:\n";
    std::vector<Trace*> sorted = All();
    // TraceComparer: group names compared in lower case.
    auto lower = [](std::string s) {
        std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return char(std::tolower(c)); });
        return s;
    };
    std::stable_sort(sorted.begin(), sorted.end(),
                     [&](Trace* a, Trace* b) { return lower(a->group()) < lower(b->group()); });
    for (Trace* t : sorted)
        out << t->group() << ":" << t->name() << ":" << t->type() << " is "
            << (t->IsTracing() ? "enabled" : "disabled") << "\n";
}

int tracef(Trace& trace, const char* format, ...) {
    if (!Trace::IsEnabled() || !trace.IsTracing()) return 0;
    char buf[4096];
    va_list ap;
    va_start(ap, format);
    int n = vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    trace.writeLine(buf);
    return n;
}

TraceScope::TraceScope(Trace& trace, const char* function) : mTrace(trace), mFunction(function) {
    ESA_TRACE(mTrace, ">>>> " << mFunction);
}

TraceScope::~TraceScope() { ESA_TRACE(mTrace, "<<<< " << mFunction); }
